#include "decoder/window.h"

#include <algorithm>
#include <cstring>

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

/** Lays the sections out one after the other; together they are exactly what is left of the window. */
void PlaceSections(const SectionReader& reader, WindowHeader& header) {
	std::uint64_t begin = reader.Position();
	std::uint64_t left = reader.Remaining();
	for (Section* section : {&header.data, &header.instructions, &header.addresses}) {
		if (section->size > left) {
			reader.Fail("the window's sections are longer than the window");
		}
		section->begin = begin;
		begin += section->size;
		left -= section->size;
	}
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
	const std::uint64_t end = reader.ReadPartEnd("a window of");
	reader.Open("window", reader.Position(), end);
	header.target_size = reader.ReadInteger();
	CheckTargetSize(reader, header.target_size, limits);
	RefuseCompressedSections(reader);
	header.data.size = reader.ReadInteger();
	header.instructions.size = reader.ReadInteger();
	header.addresses.size = reader.ReadInteger();
	if ((indicator & kChecksum) != 0) {
		header.checksum = ReadChecksum(reader);
	}
	PlaceSections(reader, header);
	reader.Open("patch", end, patch_end);
	return header;
}

WindowDecoder::WindowDecoder(const CodeTable& table, const ReadableBytes& patch, const ReadableBytes& source,
    OutputBuffer& output, const BufferSizes& sizes)
    : table_(table),
      output_(output),
      source_(source, sizes.read_ahead),
      data_(patch, sizes.section),
      instructions_(patch, sizes.section),
      addresses_(patch, sizes.section),
      cache_(table.caches) {}

void WindowDecoder::Decode(const WindowHeader& window) {
	window_ = window;
	window_begin_ = output_.Position();
	left_ = window.target_size;
	data_.Open("data section", window.data.begin, window.data.End());
	instructions_.Open("instruction section", window.instructions.begin, window.instructions.End());
	addresses_.Open("address section", window.addresses.begin, window.addresses.End());
	cache_.Reset();
	while (!instructions_.AtEnd()) {
		const CodeTableEntry& entry = table_.entries[instructions_.ReadByte()];
		Execute(entry.first);
		Execute(entry.second);
	}
	CheckAllUsed();
}

void WindowDecoder::Execute(const Instruction& instruction) {
	if (instruction.type == InstructionType::kNoop) {
		return;
	}
	const std::uint64_t size = instruction.size != 0 ? instruction.size : instructions_.ReadInteger();
	if (size > left_) {
		instructions_.Fail("an instruction makes " + std::to_string(size) + " bytes where the window has room for " +
		                   std::to_string(left_));
	}
	switch (instruction.type) {
	case InstructionType::kAdd:
		Add(size);
		break;
	case InstructionType::kRun:
		Run(size);
		break;
	default:
		Copy(size, instruction.mode);
		break;
	}
	left_ -= size;
}

void WindowDecoder::Add(std::uint64_t size) {
	if (size > data_.Remaining()) {
		data_.Fail("an ADD of " + std::to_string(size) + " bytes where the data section has only " +
		           std::to_string(data_.Remaining()));
	}
	output_.Append(size, [&](Byte* to, std::size_t length) { data_.Read(to, length); });
}

void WindowDecoder::Run(std::uint64_t size) {
	const Byte value = data_.ReadByte();
	output_.Append(size, [&](Byte* to, std::size_t length) { std::memset(to, value, length); });
}

void WindowDecoder::Copy(std::uint64_t size, unsigned mode) {
	// Segment and target window share one range of addresses, the segment first.
	const std::uint64_t here = window_.segment_size + window_.target_size - left_;
	std::uint64_t address = cache_.Read(mode, here, addresses_);
	if (address < window_.segment_size) {
		const std::uint64_t part = std::min(size, window_.segment_size - address);
		CopySegment(address, part);
		address += part;
		size -= part;
	}
	if (size > 0) {
		output_.CopyBack(window_begin_ + (address - window_.segment_size), size);
	}
}

void WindowDecoder::CopySegment(std::uint64_t address, std::uint64_t size) {
	std::uint64_t offset = window_.segment_position + address;
	if (window_.origin == SegmentOrigin::kTarget) {
		output_.CopyBack(offset, size);
		return;
	}
	output_.Append(size, [&](Byte* to, std::size_t length) {
		source_.Read(offset, to, length);
		offset += length;
	});
}

void WindowDecoder::CheckAllUsed() const {
	if (left_ != 0) {
		instructions_.Fail("the instructions end " + std::to_string(left_) + " bytes before their window is full");
	}
	if (!data_.AtEnd()) {
		data_.Fail("the window's instructions leave " + std::to_string(data_.Remaining()) + " bytes of data over");
	}
	if (!addresses_.AtEnd()) {
		addresses_.Fail(
		    "the window's instructions leave " + std::to_string(addresses_.Remaining()) + " bytes of addresses over");
	}
}

} // namespace tarn::decoder
