/** @file Applying one window of a patch. */
#ifndef DECODER_WINDOW_DECODER_H
#define DECODER_WINDOW_DECODER_H

#include "decoder/address_cache.h"
#include "decoder/code_table.h"
#include "decoder/output_buffer.h"
#include "decoder/read_ahead.h"
#include "decoder/section_reader.h"
#include "decoder/window_header.h"

namespace tarn::decoder {

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
