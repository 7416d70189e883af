/** @file Reading through a buffer: a source from place to place, a section of a patch from its beginning to its end. */
#ifndef DECODER_READERS_H
#define DECODER_READERS_H

#include "decoder/bytes.h"

#include <memory>
#include <string>

namespace tarn::decoder {

/**
 * Serves short reads that mostly go forwards from a buffer, and long ones directly. How much it reads ahead grows while
 * the reads go forwards and falls back when they jump, so that scattered reads don't pay for bytes nobody wants.
 */
class ReadAhead {
public:
	ReadAhead(const ReadableBytes& bytes, std::size_t buffer_size);

	/** The caller keeps the range within the bytes' present size. */
	void Read(std::uint64_t offset, Byte* to, std::size_t length);

private:
	bool Holds(std::uint64_t offset) const { return offset >= begin_ && offset - begin_ < used_; }
	void Fill(std::uint64_t offset);

	const ReadableBytes& bytes_;
	const std::size_t buffer_size_;
	std::unique_ptr<Byte[]> buffer_;
	std::uint64_t begin_ = 0;
	std::size_t used_ = 0;
	std::uint64_t last_end_ = 0;
	std::size_t step_;
};

/** Reads one section of a patch from its beginning to its end, through a buffer of fixed size. */
class SectionReader {
public:
	SectionReader(const ReadableBytes& patch, std::size_t buffer_size);

	/** Goes to [begin, end), which lies within the patch. What the buffer holds of it is kept. */
	void Open(const char* what, std::uint64_t begin, std::uint64_t end);

	std::uint64_t Position() const { return buffer_begin_ + static_cast<std::uint64_t>(next_ - buffer_.get()); }
	std::uint64_t Remaining() const { return end_ - Position(); }
	bool AtEnd() const { return next_ == limit_ && Remaining() == 0; }

	Byte ReadByte() {
		if (next_ == limit_) {
			Refill();
		}
		return *next_++;
	}
	/** Base 128, most significant digit first. Throws when it does not fit into 64 bits. */
	std::uint64_t ReadInteger() {
		const Byte first = ReadByte();
		return first < kContinued ? first : ReadLongInteger(first);
	}
	void Read(Byte* to, std::size_t length);
	/** The end of a part whose length comes next; throws when it goes beyond the section. `part` begins the reason. */
	std::uint64_t ReadPartEnd(const std::string& part);

	/** Throws a DecodeError that names the patch, the place just reached, and what is wrong there. */
	[[noreturn]] void Fail(const std::string& problem) const;

private:
	static constexpr Byte kContinued = 0x80;

	std::uint64_t ReadLongInteger(Byte first);
	void Refill();
	void SetLimit();

	const ReadableBytes& patch_;
	const std::size_t buffer_size_;
	std::unique_ptr<Byte[]> buffer_;
	const char* what_ = "";
	std::uint64_t end_ = 0;
	std::uint64_t buffer_begin_ = 0;
	std::size_t buffer_used_ = 0;
	const Byte* next_;
	const Byte* limit_;
};

} // namespace tarn::decoder

#endif
