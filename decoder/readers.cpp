#include "decoder/readers.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace tarn::decoder {

namespace {

constexpr std::size_t kFirstStep = 4096;
// From here on the call costs less than the second copy.
constexpr std::size_t kDirectRead = 8192;

} // namespace

ReadAhead::ReadAhead(const ReadableBytes& bytes, std::size_t buffer_size)
    : bytes_(bytes),
      buffer_size_(buffer_size),
      buffer_(new Byte[buffer_size]),
      step_(std::min(buffer_size, kFirstStep)) {}

void ReadAhead::Read(std::uint64_t offset, Byte* to, std::size_t length) {
	while (length > 0) {
		if (!Holds(offset)) {
			if (length >= std::min(buffer_size_, kDirectRead)) {
				bytes_.ReadAt(offset, to, length);
				last_end_ = offset + length;
				return;
			}
			Fill(offset);
		}
		const auto at = static_cast<std::size_t>(offset - begin_);
		const std::size_t part = std::min(length, used_ - at);
		std::memcpy(to, buffer_.get() + at, part);
		to += part;
		offset += part;
		length -= part;
		last_end_ = offset;
	}
}

void ReadAhead::Fill(std::uint64_t offset) {
	const bool goes_on = offset >= last_end_ && offset - last_end_ <= step_;
	step_ = std::min(buffer_size_, goes_on ? 2 * step_ : kFirstStep);
	used_ = 0; // nothing is held if the read fails
	const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(step_, bytes_.Size() - offset));
	bytes_.ReadAt(offset, buffer_.get(), wanted);
	begin_ = offset;
	used_ = wanted;
}

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

std::uint64_t SectionReader::ReadPartEnd(const std::string& part) {
	const std::uint64_t length = ReadInteger();
	if (length > Remaining()) {
		Fail(part + " " + std::to_string(length) + " bytes goes beyond the patch's end");
	}
	return Position() + length;
}

void SectionReader::Fail(const std::string& problem) const {
	throw DecodeError(patch_.Name() + ", byte " + std::to_string(Position()) + ": " + problem + ".");
}

} // namespace tarn::decoder
