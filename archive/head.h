/** @file The first bytes of a signed archive, and the format's limits. */
#ifndef ARCHIVE_HEAD_H
#define ARCHIVE_HEAD_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tarn::archive {

/** The type of the keys that sign data-update packages. */
constexpr std::uint32_t kDataUpdateKeyType = 6;
constexpr std::size_t kHeadSize = 48;
constexpr std::size_t kSignatureSize = 64;
constexpr std::size_t kDigestSize = 32;
constexpr std::uint32_t kChunkSize = 1U << 20U;
constexpr std::uint32_t kMaxMetadataSize = 64U << 10U;
constexpr std::uint64_t kMaxPayloadSize = std::uint64_t{64} << 30U;
/** What a payload's zstd frames may ask for, so that a reader's memory stays small: 8 MiB. */
constexpr int kMaxWindowLog = 23;

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
	std::uint32_t chunk_size = kChunkSize;
	std::uint64_t payload_size = 0;
	std::uint64_t entry_count = 0;
	std::uint64_t unpacked_size = 0;
	std::uint32_t metadata_size = 0;

	std::uint64_t ChunkCount() const { return payload_size / chunk_size + (payload_size % chunk_size != 0 ? 1 : 0); }
	std::uint64_t TableOffset() const { return kHeadSize + metadata_size; }
	std::uint64_t SignatureOffset() const { return TableOffset() + ChunkCount() * kDigestSize; }
	std::uint64_t PayloadOffset() const { return SignatureOffset() + kSignatureSize; }
	std::uint64_t FileSize() const { return PayloadOffset() + payload_size; }
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

} // namespace tarn::archive

#endif
