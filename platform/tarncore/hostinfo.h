/** @file How this host describes itself to a server. */
#ifndef PLATFORM_TARNCORE_HOSTINFO_H
#define PLATFORM_TARNCORE_HOSTINFO_H

#include <string>
#include <vector>

namespace tarn::core {

/** The files that name the operating system, the first that can be read counts. */
const std::vector<std::string>& OsReleasePaths();

/** The operating system's name and version, such as "Debian GNU/Linux 12"; the kernel's name when no file tells. */
std::string OsName(const std::vector<std::string>& os_release_paths);

/** The whole user-agent string, printable ASCII alone. */
std::string UserAgent(const std::string& category, const std::vector<std::string>& os_release_paths);

} // namespace tarn::core

#endif
