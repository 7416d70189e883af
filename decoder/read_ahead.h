/** @file Reading a source in blocks. */
#ifndef DECODER_READ_AHEAD_H
#define DECODER_READ_AHEAD_H

#include "decoder/bytes.h"

#include <memory>

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

} // namespace tarn::decoder

#endif
