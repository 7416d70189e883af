/** @file The environment that helper programs get instead of the caller's. */
#ifndef PLATFORM_TARNCORE_ENVIRONMENT_H
#define PLATFORM_TARNCORE_ENVIRONMENT_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace tarn::core {

/** The administrator's settings for the HTTP client. */
constexpr const char* kWgetrcPath = "/usr/tarn/etc/data_update/wgetrc";

/**
 * Whether a settings file may be obeyed: a regular file (no link) of the given owner that nobody else may write.
 * One that exists but may not be obeyed is told to syslog.
 */
[[nodiscard]] bool IsTrustedSettingsFile(const std::string& path, uid_t owner);

/**
 * The built environment as "NAME=value" strings: proxy variables from the caller, all else fixed.
 *
 * @param wgetrc  settings file that WGETRC names when it is trusted; otherwise there is no WGETRC
 * @param owner   the owner that makes it trusted
 */
std::vector<std::string> BuildEnvironment(const std::string& wgetrc = kWgetrcPath, uid_t owner = 0);

} // namespace tarn::core

#endif
