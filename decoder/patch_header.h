/** @file The beginning of a patch, and what a patch promises of its source and its target. */
#ifndef DECODER_PATCH_HEADER_H
#define DECODER_PATCH_HEADER_H

#include "decoder/code_table.h"
#include "decoder/readers.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tarn::decoder {

/** What our publisher says in a patch's application header about the files the patch was made from. */
struct Promise {
	std::uint64_t source_size = 0;
	std::uint64_t target_size = 0;
	std::string target_hash; ///< XXH3-128, 32 lower-case hexadecimal digits
};

/** `TARNVCD1 <source size> <target size> <target hash>`. */
std::string FormatApplicationHeader(const Promise& promise);

/** Nothing when the text is not well formed. */
[[nodiscard]] std::optional<Promise> ParseApplicationHeader(const std::string& text);

/** The header for a patch between two regular files, both of which are read. Throws DecodeError. */
std::string MakeApplicationHeader(const std::string& source, const std::string& target);

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
[[nodiscard]] PatchHeader ReadPatchHeader(SectionReader& reader);

} // namespace tarn::decoder

#endif
