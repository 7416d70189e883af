#include "archive/head.h"

#include "base/error.h"

namespace tarn::archive {

namespace {

constexpr std::string_view kMagic = "TARNSAR1";
constexpr unsigned kByteBits = 8;

template<typename Number>
void Append(std::string& bytes, Number value) {
	for (std::size_t i = 0; i < sizeof(Number); ++i) {
		bytes += static_cast<char>(static_cast<unsigned char>(value >> (kByteBits * i)));
	}
}

template<typename Number>
Number Take(std::string_view& bytes) {
	Number value = 0;
	for (std::size_t i = 0; i < sizeof(Number); ++i) {
		value |= static_cast<Number>(static_cast<Number>(static_cast<unsigned char>(bytes[i])) << (kByteBits * i));
	}
	bytes.remove_prefix(sizeof(Number));
	return value;
}

} // namespace

std::string EncodeHead(const ArchiveHead& head) {
	std::string bytes(kMagic);
	Append(bytes, head.key_type);
	Append(bytes, head.chunk_size);
	Append(bytes, head.payload_size);
	Append(bytes, head.entry_count);
	Append(bytes, head.unpacked_size);
	Append(bytes, head.metadata_size);
	Append(bytes, std::uint32_t{0});
	return bytes;
}

ArchiveHead DecodeHead(std::string_view bytes) {
	Require(bytes.size() == kHeadSize && bytes.substr(0, kMagic.size()) == kMagic, "is not a signed archive");
	bytes.remove_prefix(kMagic.size());
	ArchiveHead head;
	head.key_type = Take<std::uint32_t>(bytes);
	head.chunk_size = Take<std::uint32_t>(bytes);
	head.payload_size = Take<std::uint64_t>(bytes);
	head.entry_count = Take<std::uint64_t>(bytes);
	head.unpacked_size = Take<std::uint64_t>(bytes);
	head.metadata_size = Take<std::uint32_t>(bytes);
	const auto reserved = Take<std::uint32_t>(bytes);
	Require(head.chunk_size == kChunkSize, "has an unknown chunk size in its head");
	Require(
	    head.payload_size > 0 && head.payload_size <= kMaxPayloadSize, "has an impossible payload size in its head");
	Require(head.metadata_size <= kMaxMetadataSize, "has too much metadata");
	Require(reserved == 0, "has a reserved field in use, so it needs a newer reader");
	return head;
}

} // namespace tarn::archive
