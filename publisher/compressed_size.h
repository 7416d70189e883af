#ifndef PUBLISHER_COMPRESSED_SIZE_H
#define PUBLISHER_COMPRESSED_SIZE_H

#include <cstdint>
#include <optional>
#include <string>

namespace tarn::publisher {

/**
 * What a file takes when it is compressed as packages are; none as soon as that is not below a limit, since nobody
 * wants to wait for the compression of a large file only to learn that its patch is smaller. Throws PublishError.
 */
std::optional<std::uint64_t> CompressedSizeBelow(std::uint64_t limit, const std::string& path, int level);

} // namespace tarn::publisher

#endif
