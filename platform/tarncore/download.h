/** @file Running the HTTP client under a guard, which ends what would fill the disk or never end. */
#ifndef PLATFORM_TARNCORE_DOWNLOAD_H
#define PLATFORM_TARNCORE_DOWNLOAD_H

#include "base/process.h"
#include "base/settings_lines.h"

#include <tarncore/tarncore.h>

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace tarn::core {

/** What holds for every download of any host. */
struct DownloadSettings {
	/** From the start of the client to its end, however many tries it makes. */
	std::chrono::seconds deadline = std::chrono::hours(4);
	/** Bytes per second, measured over the patience; 0 lets a download be as slow as it is. */
	std::uint64_t lowest_rate = 1000;
	/** Longer than the client takes to give up a server that cannot be connected to, which says more by itself. */
	std::chrono::seconds patience = std::chrono::minutes(2);
};

/**
 * Reads the settings file: "deadline SECONDS", "lowest_rate BYTES" and "patience SECONDS", one a line. What is absent
 * keeps its default. Lines that cannot be understood are told to syslog and skipped, and so is a whole file that others
 * than its owner may write: nobody else may take the limits away.
 */
DownloadSettings ReadDownloadSettings(const std::string& path = kDownloadSettingsPath, uid_t owner = 0);

struct DownloadEnd {
	TLIBCDownloadEnd reason;
	std::string text; ///< The end of a sentence: "it ...".
};

/** The space of the file system that a download is written to. */
struct Space {
	std::uint64_t free_bytes = 0;
	std::uint64_t capacity = 0;
};

/** The file's size; 0 for a missing one. */
std::uint64_t FileSize(const std::string& file);

/**
 * Measures one download. A twentieth of the file system stays free, as it does after every update; a file of up to 2
 * MiB may go below that as long as it leaves as much as it takes, so that a document still arrives on a disk that is
 * nearly full. What counts as progress is growth of the file: a client that tries again begins the file again, and what
 * it had counts all the same, so that only a server that really sends less than the lowest rate is given up.
 */
class DownloadGuard {
public:
	using Clock = std::chrono::steady_clock;

	/** Takes the host's limits, the space before the download, and the size of the file that will be replaced. */
	DownloadGuard(const DownloadSettings& settings, const TLIBCDownloadLimits& limits,
	    const std::optional<Space>& space, std::uint64_t size, Clock::time_point now);

	/** The most that the file may have; the client cannot write more. No value when nothing is known of any limit. */
	std::optional<std::uint64_t> LargestFile() const { return largest_; }

	/** Whether the download may go on; after a no, End() tells why not. */
	bool MayGoOn(std::uint64_t size, const std::optional<Space>& space, Clock::time_point now);

	/** The client was ended by the system for writing more than LargestFile(). */
	void NoteExcess();

	const std::optional<DownloadEnd>& End() const { return end_; }

private:
	void CheckSpace(std::uint64_t size, const std::optional<Space>& space);
	void CheckRate(std::uint64_t size, Clock::time_point now);

	DownloadSettings settings_;
	std::optional<std::uint64_t> largest_;
	DownloadEnd excess_;
	std::optional<DownloadEnd> end_;
	Clock::time_point begin_;
	std::uint64_t size_;
	std::uint64_t received_ = 0; ///< Since the last time that enough had come.
	Clock::time_point last_enough_;
};

constexpr const char* kHttpClient = "/usr/bin/wget";

struct Download {
	std::string url;
	std::string file;
};

/** The download that a program is; no value for any other program, and for one that names no file to write. */
[[nodiscard]] std::optional<Download> AsDownload(const process::Program& program);

/**
 * Runs the client to its end, or until the guard ends it, which is told to syslog and kept for
 * TLIBCDownloadFailureGet().
 *
 * @param status  as of waitpid()
 * @return 0, an errno value, or TLIBC_ERR_DOWNLOAD plus the reason for which the download was ended
 */
[[nodiscard]] int RunDownload(process::Program& program, const Download& download, int& status);

} // namespace tarn::core

#endif
