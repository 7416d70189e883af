#include "decoder/section_reader.h"

#include "decoder/decode_error.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace tarn::decoder {

SectionReader::SectionReader(const ReadableBytes& patch, std::size_t buffer_size)
    : patch_(patch),
      buffer_size_(buffer_size),
      buffer_(new Byte[buffer_size]),
      next_(buffer_.get()),
      limit_(buffer_.get()) {}

void SectionReader::Open(const char* what, std::uint64_t begin, std::uint64_t end) {
	what_ = what;
	end_ = end;
	if (begin < buffer_begin_ || begin - buffer_begin_ > buffer_used_) {
		buffer_begin_ = begin;
		buffer_used_ = 0;
	}
	next_ = buffer_.get() + (begin - buffer_begin_);
	SetLimit();
}

void SectionReader::SetLimit() {
	limit_ = buffer_.get() + std::min<std::uint64_t>(buffer_used_, end_ - buffer_begin_);
}

void SectionReader::Refill() {
	const std::uint64_t position = Position();
	if (position == end_) {
		Fail(std::string("the ") + what_ + " ends too early");
	}
	// Beyond the section's end as well: small sections lie close together, and the next ones are then here already.
	buffer_used_ = static_cast<std::size_t>(std::min<std::uint64_t>(buffer_size_, patch_.Size() - position));
	buffer_begin_ = position;
	next_ = buffer_.get();
	limit_ = next_;
	patch_.ReadAt(position, buffer_.get(), buffer_used_);
	SetLimit();
}

std::uint64_t SectionReader::ReadLongInteger(Byte first) {
	constexpr unsigned kDigitBits = 7;
	constexpr unsigned kMostDigits = 10;
	constexpr Byte kDigitMask = kContinued - 1;
	std::uint64_t value = first & kDigitMask;
	for (unsigned digits = 1; digits < kMostDigits; ++digits) {
		const Byte next = ReadByte();
		if (value > std::numeric_limits<std::uint64_t>::max() >> kDigitBits) {
			Fail("an integer does not fit into 64 bits");
		}
		value = value << kDigitBits | (next & kDigitMask);
		if (next < kContinued) {
			return value;
		}
	}
	Fail("an integer has more than 10 digits");
}

void SectionReader::Read(Byte* to, std::size_t length) {
	if (length > Remaining()) {
		Fail(std::string("the ") + what_ + " ends too early");
	}
	while (length > 0) {
		if (next_ == limit_) {
			if (length >= buffer_size_) {
				patch_.ReadAt(Position(), to, length);
				Open(what_, Position() + length, end_);
				return;
			}
			Refill();
		}
		const std::size_t part = std::min(length, static_cast<std::size_t>(limit_ - next_));
		std::memcpy(to, next_, part);
		next_ += part;
		to += part;
		length -= part;
	}
}

void SectionReader::Fail(const std::string& problem) const {
	throw DecodeError(patch_.Name() + ", byte " + std::to_string(Position()) + ": " + problem + ".");
}

} // namespace tarn::decoder
