/** @file The beginning of a window. */
#ifndef DECODER_WINDOW_HEADER_H
#define DECODER_WINDOW_HEADER_H

#include "decoder/section_reader.h"

#include <optional>

namespace tarn::decoder {

enum class SegmentOrigin { kNone, kSource, kTarget };

struct Section {
	std::uint64_t begin = 0;
	std::uint64_t end = 0;
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
WindowHeader ReadWindowHeader(SectionReader& reader, const WindowLimits& limits);

} // namespace tarn::decoder

#endif
