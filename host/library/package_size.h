/** @file How large a package on the server is, without downloading it. */
#ifndef HOST_LIBRARY_PACKAGE_SIZE_H
#define HOST_LIBRARY_PACKAGE_SIZE_H

#include <cstdint>
#include <optional>
#include <string>

namespace tarn::ctl {

/** What stands in the place of a downloaded file when the server is only asked for the size. */
constexpr char kNoFile[] = "/dev/null";

/**
 * Asks the server by a HEAD request, with the same client, settings, certificates and guards as a download. No value
 * when the server cannot be reached, does not have the package, or does not tell its size.
 */
[[nodiscard]] std::optional<std::uint64_t> AskPackageSize(const std::string& link);

/** The size in the client's account of the server's headers: that of the last answer, if that is a success. */
[[nodiscard]] std::optional<std::uint64_t> SizeInHeaders(const std::string& account);

} // namespace tarn::ctl

#endif
