/** @file Running the HTTP client under guard. */
#ifndef PLATFORM_TARNCORE_DOWNLOAD_H
#define PLATFORM_TARNCORE_DOWNLOAD_H

#include "base/process.h"

#include <optional>
#include <string>

namespace tarn::core {

constexpr const char* kHttpClient = "/usr/bin/wget";

/** What the HTTP client is going to do. */
struct Download {
	std::string url;
	std::string file;
};

/** The download that a program is; no value for any other program, and for one that names no file to write. */
std::optional<Download> AsDownload(const process::Program& program);

/**
 * Runs the client to its end, or until the guard ends it, which is told to syslog and kept for
 * TLIBCDownloadFailureGet().
 *
 * @param status  as of waitpid()
 * @return 0, an errno value, or TLIBC_ERR_DOWNLOAD plus the reason for which the download was ended
 */
int RunDownload(process::Program& program, const Download& download, int& status);

/** Where the client finds the settings that always hold: its standard input. */
constexpr const char* kFixedSettingsPath = "/proc/self/fd/0";

} // namespace tarn::core

#endif
