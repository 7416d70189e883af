#include "decoder/output_buffer.h"

#include <libdeflate.h>

#include <cstring>

namespace tarn::decoder {

OutputBuffer::OutputBuffer(GrowingBytes& target, std::size_t block_size, std::size_t read_ahead_size)
    : target_(target), block_size_(block_size), block_(new Byte[block_size]), earlier_(target, read_ahead_size) {}

void OutputBuffer::StartChecksum() {
	constexpr std::uint32_t kAdlerOfNothing = 1;
	checksum_ = kAdlerOfNothing;
	checksummed_ = used_;
}

std::uint32_t OutputBuffer::EndChecksum() {
	ChecksumBlock();
	const std::uint32_t result = *checksum_;
	checksum_.reset();
	return result;
}

void OutputBuffer::ChecksumBlock() {
	if (checksum_) {
		checksum_ = libdeflate_adler32(*checksum_, block_.get() + checksummed_, used_ - checksummed_);
		checksummed_ = used_;
	}
}

void OutputBuffer::CopyBack(std::uint64_t from, std::uint64_t length) {
	while (length > 0) {
		std::size_t part = Room(length);
		// Bytes from `from` on repeat with this period, so that what has been copied doubles what can be copied next.
		const std::uint64_t period = Position() - from;
		if (from < written_) {
			part = static_cast<std::size_t>(std::min<std::uint64_t>(part, written_ - from));
			earlier_.Read(from, block_.get() + used_, part);
		} else {
			part = static_cast<std::size_t>(std::min<std::uint64_t>(part, period));
			std::memcpy(block_.get() + used_, block_.get() + (from - written_), part);
		}
		used_ += part;
		length -= part;
		if (part < period) {
			from += part;
		}
	}
}

void OutputBuffer::Flush() {
	ChecksumBlock();
	if (hash_) {
		hash_->Update(block_.get(), used_);
	}
	if (used_ > 0) {
		target_.Append(block_.get(), used_);
	}
	written_ += used_;
	used_ = 0;
	checksummed_ = 0;
}

} // namespace tarn::decoder
