/** @file What a repository was served as when something was published last. */
#ifndef PUBLISHER_REMEMBERED_URL_H
#define PUBLISHER_REMEMBERED_URL_H

#include <optional>
#include <string>

namespace tarn::publisher {

/** The URL; no value when none was noted. Takes no lock. */
[[nodiscard]] std::optional<std::string> RememberedUrlOf(const std::string& directory);

} // namespace tarn::publisher

#endif
