/** @file The ways in which a frame of a payload can be compressed, and undoing them in bounded memory. */
#ifndef ARCHIVE_CODEC_H
#define ARCHIVE_CODEC_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tarn::archive {

/** The numbers are those of the format. */
enum class Codec : std::uint32_t { kStored = 0, kZstd = 1, kBrotli = 2, kLzma = 3, kBzip2 = 4 };
constexpr std::uint32_t kCodecCount = 5;

/** "stored", "zstd", "brotli", "lzma" or "bzip2". */
const char* CodecName(Codec codec);

/** What a decompressor may take beside the frame's packed and unpacked bytes, whatever the packed bytes ask for. */
constexpr std::size_t kMaxDecoderMemory = std::size_t{6} << 20U;

/**
 * Decompresses one frame into memory. What it decompresses may be anything.
 *
 * @param packed  all bytes of the frame
 * @param output  gets exactly this many bytes
 * @param size    at most kMaxFrameSize
 * @throws Error  naming the codec, when the bytes are damaged, make more or less than the size, are followed by others,
 *                or ask for more memory than kMaxDecoderMemory
 */
void Decompress(Codec codec, std::string_view packed, char* output, std::size_t size);

} // namespace tarn::archive

#endif
