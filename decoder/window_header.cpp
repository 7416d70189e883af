#include "decoder/window_header.h"

namespace tarn::decoder {

namespace {

constexpr Byte kSource = 0x01;
constexpr Byte kTarget = 0x02;
constexpr Byte kChecksum = 0x04;

Byte ReadIndicator(SectionReader& reader) {
	const Byte indicator = reader.ReadByte();
	if ((indicator & ~(kSource | kTarget | kChecksum)) != 0) {
		reader.Fail("the window has unknown bits (" + std::to_string(indicator) + ")");
	}
	if ((indicator & kSource) != 0 && (indicator & kTarget) != 0) {
		reader.Fail("the window wants to copy from both the source and the target");
	}
	return indicator;
}

void ReadSegment(SectionReader& reader, WindowHeader& header, const WindowLimits& limits) {
	header.segment_size = reader.ReadInteger();
	header.segment_position = reader.ReadInteger();
	const bool from_source = header.origin == SegmentOrigin::kSource;
	const std::uint64_t there = from_source ? limits.source_size : limits.output_size;
	if (header.segment_position > there || header.segment_size > there - header.segment_position) {
		reader.Fail("the window wants " + std::to_string(header.segment_size) + " bytes at " +
		            std::to_string(header.segment_position) + " of the " + (from_source ? "source" : "target") +
		            ", which has only " + std::to_string(there));
	}
}

/** The end of the window, from the length of all that follows. */
std::uint64_t ReadWindowEnd(SectionReader& reader) {
	const std::uint64_t length = reader.ReadInteger();
	if (length > reader.Remaining()) {
		reader.Fail("a window of " + std::to_string(length) + " bytes goes beyond the patch's end");
	}
	return reader.Position() + length;
}

void CheckTargetSize(const SectionReader& reader, std::uint64_t size, const WindowLimits& limits) {
	if (size > limits.output_limit - limits.output_size) {
		reader.Fail("the window would make the output larger than " + std::to_string(limits.output_limit) +
		            (limits.promised ? " bytes, which the application header promises" : " bytes, which is the limit"));
	}
}

void RefuseCompressedSections(SectionReader& reader) {
	const Byte indicator = reader.ReadByte();
	if (indicator != 0) {
		reader.Fail("the window's sections are compressed (" + std::to_string(indicator) +
		            "), but the header names no compression");
	}
}

std::uint32_t ReadChecksum(SectionReader& reader) {
	constexpr unsigned kBytes = 4;
	constexpr unsigned kByteBits = 8;
	std::uint32_t checksum = 0;
	for (unsigned count = 0; count < kBytes; ++count) {
		checksum = checksum << kByteBits | reader.ReadByte();
	}
	return checksum;
}

struct SectionLengths {
	std::uint64_t data;
	std::uint64_t instructions;
	std::uint64_t addresses;
};

/** Lays the sections out one after the other; together they are exactly what is left of the window. */
void PlaceSections(const SectionReader& reader, WindowHeader& header, const SectionLengths& lengths) {
	std::uint64_t begin = reader.Position();
	std::uint64_t left = reader.Remaining();
	const auto place = [&](Section& section, std::uint64_t length) {
		if (length > left) {
			reader.Fail("the window's sections are longer than the window");
		}
		section = {begin, begin + length};
		begin += length;
		left -= length;
	};
	place(header.data, lengths.data);
	place(header.instructions, lengths.instructions);
	place(header.addresses, lengths.addresses);
	if (left != 0) {
		reader.Fail("the window has " + std::to_string(left) + " bytes more than its sections");
	}
}

} // namespace

WindowHeader ReadWindowHeader(SectionReader& reader, const WindowLimits& limits) {
	const std::uint64_t patch_end = reader.Position() + reader.Remaining();
	WindowHeader header;
	header.begin = reader.Position();
	const Byte indicator = ReadIndicator(reader);
	if ((indicator & (kSource | kTarget)) != 0) {
		header.origin = (indicator & kSource) != 0 ? SegmentOrigin::kSource : SegmentOrigin::kTarget;
		ReadSegment(reader, header, limits);
	}
	const std::uint64_t end = ReadWindowEnd(reader);
	reader.Open("window", reader.Position(), end);
	header.target_size = reader.ReadInteger();
	CheckTargetSize(reader, header.target_size, limits);
	RefuseCompressedSections(reader);
	SectionLengths lengths = {};
	lengths.data = reader.ReadInteger();
	lengths.instructions = reader.ReadInteger();
	lengths.addresses = reader.ReadInteger();
	if ((indicator & kChecksum) != 0) {
		header.checksum = ReadChecksum(reader);
	}
	PlaceSections(reader, header, lengths);
	reader.Open("patch", end, patch_end);
	return header;
}

} // namespace tarn::decoder
