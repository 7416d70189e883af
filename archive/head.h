/** @file The first bytes of a signed archive, the table of its frames, and the format's limits. */
#ifndef ARCHIVE_HEAD_H
#define ARCHIVE_HEAD_H

#include "archive/codec.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::archive {

/** The type of the keys that sign data-update packages. */
constexpr std::uint32_t kDataUpdateKeyType = 6;
constexpr std::size_t kHeadSize = 48;
constexpr std::size_t kSignatureSize = 64;
constexpr std::size_t kDigestSize = 32;
/** What a frame may unpack to, and so what it takes in a reader's memory. */
constexpr std::uint32_t kMaxFrameSize = 2U << 20U;
/** The bytes of a frame in the table. */
constexpr std::size_t kFrameEntrySize = 44;
constexpr std::uint32_t kMaxFrames = 1U << 19U;
constexpr std::uint32_t kMaxMetadataSize = 64U << 10U;
constexpr std::uint64_t kMaxPayloadSize = std::uint64_t{64} << 30U;

/**
 * Goes before the signed bytes when they are signed and checked, so that a signature made by the same key for any
 * other purpose is never one for an archive.
 */
constexpr std::string_view kSignatureDomain = "tarn signed archive 1\n";

using Digest = std::array<unsigned char, kDigestSize>;
using Signature = std::array<unsigned char, kSignatureSize>;

/** The fixed first bytes of a signed archive; docs/formats.md describes them. */
struct ArchiveHead {
	std::uint32_t key_type = 0;
	std::uint32_t frame_count = 0;
	std::uint64_t payload_size = 0;
	std::uint64_t entry_count = 0;
	std::uint64_t unpacked_size = 0;
	std::uint32_t metadata_size = 0;

	std::uint64_t TableOffset() const { return kHeadSize + metadata_size; }
	std::uint64_t SignatureOffset() const { return TableOffset() + std::uint64_t{frame_count} * kFrameEntrySize; }
	std::uint64_t PayloadOffset() const { return SignatureOffset() + kSignatureSize; }
	std::uint64_t FileSize() const { return PayloadOffset() + payload_size; }
};

/** A piece of the payload that is compressed by itself. */
struct Frame {
	Codec codec = Codec::kStored;
	std::uint32_t packed_size = 0;
	std::uint32_t unpacked_size = 0; // of the tar; never below the packed size
	Digest digest{};                 // SHA-256 of the packed bytes
};

/** The head's bytes. */
std::string EncodeHead(const ArchiveHead& head);

/**
 * Reads a head, and refuses one whose sizes are outside the format's limits, so that they can be trusted for
 * allocations before the signature is known to be good.
 *
 * @param bytes  kHeadSize bytes
 * @throws Error
 */
[[nodiscard]] ArchiveHead DecodeHead(std::string_view bytes);

/** A frame's bytes in the table. */
std::string EncodeFrame(const Frame& frame);

/**
 * Reads the table of frames, and refuses a frame outside the format's limits and frames that are not together as large
 * as the payload.
 *
 * @param bytes  kFrameEntrySize bytes for each frame that the head counts
 * @throws Error
 */
[[nodiscard]] std::vector<Frame> DecodeFrames(std::string_view bytes, const ArchiveHead& head);

} // namespace tarn::archive

#endif
