/** @file A window of a patch: what stands at its beginning, and its instructions. */
#ifndef DECODER_WINDOW_H
#define DECODER_WINDOW_H

#include "decoder/code_table.h"
#include "decoder/output_buffer.h"
#include "decoder/readers.h"

#include <optional>

namespace tarn::decoder {

enum class SegmentOrigin { kNone, kSource, kTarget };

struct Section {
	std::uint64_t begin = 0;
	std::uint64_t size = 0;

	std::uint64_t End() const { return begin + size; }
};

/** What stands before a window's sections; all of it has been checked against what there is. */
struct WindowHeader {
	std::uint64_t begin = 0; ///< where the window begins in the patch
	SegmentOrigin origin = SegmentOrigin::kNone;
	std::uint64_t segment_size = 0;
	std::uint64_t segment_position = 0;
	std::uint64_t target_size = 0;
	std::optional<std::uint32_t> checksum; ///< Adler-32 of the target window
	Section data;
	Section instructions;
	Section addresses;
};

/** What a window may draw on, and how much it may add. */
struct WindowLimits {
	std::uint64_t source_size = 0;
	std::uint64_t output_size = 0;  ///< made so far
	std::uint64_t output_limit = 0; ///< not below output_size
	bool promised = false;          ///< the limit is what the application header says
};

/** Reads it; the reader is at a window and then at its end, before its sections are read. Throws DecodeError. */
[[nodiscard]] WindowHeader ReadWindowHeader(SectionReader& reader, const WindowLimits& limits);

/** Sizes of the buffers, which are all the memory that decoding takes. */
struct BufferSizes {
	std::size_t section = 1U << 16U;
	std::size_t read_ahead = 1U << 16U;
	std::size_t block = 1U << 18U; ///< no more than a processor's own cache holds beside other things
};

/** Carries out the instructions of one window after the other. */
class WindowDecoder {
public:
	/** Everything given stays the caller's and outlives the decoder. */
	WindowDecoder(const CodeTable& table, const ReadableBytes& patch, const ReadableBytes& source, OutputBuffer& output,
	    const BufferSizes& sizes);

	/** Appends the window to the output. Throws DecodeError. */
	void Decode(const WindowHeader& window);

private:
	void Execute(const Instruction& instruction);
	void Add(std::uint64_t size);
	void Run(std::uint64_t size);
	void Copy(std::uint64_t size, unsigned mode);
	void CopySegment(std::uint64_t address, std::uint64_t size);
	void CheckAllUsed() const;

	const CodeTable& table_;
	OutputBuffer& output_;
	ReadAhead source_;
	SectionReader data_;
	SectionReader instructions_;
	SectionReader addresses_;
	AddressCache cache_;
	WindowHeader window_;
	std::uint64_t window_begin_ = 0; // in the output
	std::uint64_t left_ = 0;         // of the target window
};

} // namespace tarn::decoder

#endif
