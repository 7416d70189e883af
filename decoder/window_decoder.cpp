#include "decoder/window_decoder.h"

#include <algorithm>
#include <cstring>

namespace tarn::decoder {

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
	data_.Open("data section", window.data.begin, window.data.end);
	instructions_.Open("instruction section", window.instructions.begin, window.instructions.end);
	addresses_.Open("address section", window.addresses.begin, window.addresses.end);
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
