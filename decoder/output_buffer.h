/** @file The target while it is made: the newest part in memory, all of it in the output. */
#ifndef DECODER_OUTPUT_BUFFER_H
#define DECODER_OUTPUT_BUFFER_H

#include "decoder/bytes.h"
#include "decoder/readers.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>

namespace tarn::decoder {

/**
 * The output as it is made: a block in memory, and everything before it in the target. Checksums are taken of a block
 * just before it is written, while it is still in the processor's cache.
 */
class OutputBuffer {
public:
	OutputBuffer(GrowingBytes& target, std::size_t block_size, std::size_t read_ahead_size);

	/** Hashes all output; to be called before there is any. */
	void StartHash() { hash_.emplace(); }
	/** Checksums what follows, up to EndChecksum(). */
	void StartChecksum();
	std::uint32_t EndChecksum();

	std::uint64_t Position() const { return written_ + used_; }

	/** Appends what `produce(Byte* to, std::size_t length)` delivers, piece by piece. */
	template<typename Produce>
	void Append(std::uint64_t length, Produce produce) {
		while (length > 0) {
			const std::size_t part = Room(length);
			produce(block_.get() + used_, part);
			used_ += part;
			length -= part;
		}
	}
	/** Appends `length` bytes from an earlier place; bytes that this very copy makes may be among them. */
	void CopyBack(std::uint64_t from, std::uint64_t length);
	void Flush();
	/** Of everything, after Flush(). */
	std::string Hash() const { return hash_->Hex(); }

private:
	/** How many of the wanted bytes fit into the block, at least one; writes a full block first. */
	std::size_t Room(std::uint64_t wanted) {
		if (used_ == block_size_) {
			Flush();
		}
		return static_cast<std::size_t>(std::min<std::uint64_t>(wanted, block_size_ - used_));
	}
	void ChecksumBlock();

	GrowingBytes& target_;
	const std::size_t block_size_;
	std::unique_ptr<Byte[]> block_;
	ReadAhead earlier_;
	std::uint64_t written_ = 0;
	std::size_t used_ = 0;
	std::optional<ContentHash> hash_;
	std::optional<std::uint32_t> checksum_;
	std::size_t checksummed_ = 0; // of the block
};

} // namespace tarn::decoder

#endif
