#include "archive/head.h"

#include "base/error.h"

#include <algorithm>

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

Frame TakeFrame(std::string_view& bytes) {
	Frame frame;
	const auto codec = Take<std::uint32_t>(bytes);
	if (codec >= kCodecCount) {
		throw Error("is compressed in a way that needs a newer reader, number " + std::to_string(codec));
	}
	frame.codec = static_cast<Codec>(codec);
	frame.packed_size = Take<std::uint32_t>(bytes);
	frame.unpacked_size = Take<std::uint32_t>(bytes);
	std::copy_n(bytes.begin(), kDigestSize, reinterpret_cast<char*>(frame.digest.data()));
	bytes.remove_prefix(kDigestSize);
	Require(frame.packed_size > 0 && frame.packed_size <= frame.unpacked_size && frame.unpacked_size <= kMaxFrameSize,
	    "has a frame of an impossible size");
	return frame;
}

} // namespace

std::string EncodeHead(const ArchiveHead& head) {
	std::string bytes(kMagic);
	Append(bytes, head.key_type);
	Append(bytes, head.frame_count);
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
	head.frame_count = Take<std::uint32_t>(bytes);
	head.payload_size = Take<std::uint64_t>(bytes);
	head.entry_count = Take<std::uint64_t>(bytes);
	head.unpacked_size = Take<std::uint64_t>(bytes);
	head.metadata_size = Take<std::uint32_t>(bytes);
	const auto reserved = Take<std::uint32_t>(bytes);
	Require(head.frame_count > 0 && head.frame_count <= kMaxFrames, "has an impossible number of frames in its head");
	Require(
	    head.payload_size > 0 && head.payload_size <= kMaxPayloadSize, "has an impossible payload size in its head");
	Require(head.metadata_size <= kMaxMetadataSize, "has too much metadata");
	Require(reserved == 0, "has a reserved field in use, so it needs a newer reader");
	return head;
}

std::string EncodeFrame(const Frame& frame) {
	std::string bytes;
	Append(bytes, static_cast<std::uint32_t>(frame.codec));
	Append(bytes, frame.packed_size);
	Append(bytes, frame.unpacked_size);
	bytes.append(reinterpret_cast<const char*>(frame.digest.data()), frame.digest.size());
	return bytes;
}

std::vector<Frame> DecodeFrames(std::string_view bytes, const ArchiveHead& head) {
	Require(bytes.size() == std::size_t{head.frame_count} * kFrameEntrySize, "has a table of another size");
	std::vector<Frame> frames;
	frames.reserve(head.frame_count);
	std::uint64_t packed = 0;
	while (!bytes.empty()) {
		frames.push_back(TakeFrame(bytes));
		packed += frames.back().packed_size;
	}
	Require(packed == head.payload_size, "has frames that are not as large as its payload");
	return frames;
}

} // namespace tarn::archive
