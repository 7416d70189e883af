/** @file The beginning of a patch. */
#ifndef DECODER_PATCH_HEADER_H
#define DECODER_PATCH_HEADER_H

#include "decoder/application_header.h"
#include "decoder/code_table.h"
#include "decoder/section_reader.h"

#include <optional>

namespace tarn::decoder {

/** What stands before the windows. */
struct PatchHeader {
	/** Where a custom code table's own patch lies; it ends where the table's part of the header does. */
	struct CustomTable {
		CacheSizes caches;
		std::uint64_t begin = 0;
		std::uint64_t end = 0;
	};

	std::optional<CustomTable> custom_table;
	std::optional<Promise> promise;
};

/** Reads it; the reader is at the patch's beginning and then at the first window. Throws DecodeError. */
PatchHeader ReadPatchHeader(SectionReader& reader);

} // namespace tarn::decoder

#endif
