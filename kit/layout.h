/** @file How a kit lies in its file: a tar archive, of which every byte but the content follows from the table. */
#ifndef KIT_LAYOUT_H
#define KIT_LAYOUT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::kit {

constexpr std::size_t kBlockSize = 512;
/** Two empty blocks, with which every tar archive ends. */
constexpr std::size_t kEndSize = 2 * kBlockSize;

/** The block before a member's content, in the form "ustar": a plain file of root that all may read. */
[[nodiscard]] std::string MakeHeader(const std::string& name, std::uint64_t size);

/** The size that a header names; throws Error when it names none. */
[[nodiscard]] std::uint64_t SizeInHeader(std::string_view header);

/** What a content takes in the file: whole blocks. */
[[nodiscard]] constexpr std::uint64_t Padded(std::uint64_t size) {
	return (size + kBlockSize - 1) / kBlockSize * kBlockSize;
}

/** Where the content of each member begins, and the size of the whole file as the last number. */
[[nodiscard]] std::vector<std::uint64_t> OffsetsOf(const std::vector<std::uint64_t>& sizes);

} // namespace tarn::kit

#endif
