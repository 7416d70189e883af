/** @file Applies VCDIFF patches (RFC 3284). */
#ifndef DECODER_DECODE_H
#define DECODER_DECODE_H

#include "decoder/bytes.h"
#include "decoder/window.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tarn::decoder {

/** What a patch may ask for. Whatever its windows say, memory is bounded by the buffers. */
struct DecodeLimits {
	static constexpr std::uint64_t kAlwaysAllowed = std::uint64_t{256} << 20U;
	static constexpr std::uint64_t kGrowth = 64;
	static constexpr std::uint64_t kNeverAllowed = std::uint64_t{64} << 30U;

	/**
	 * The largest output. By default 64 times source and patch together, but at least 256 MiB, and never more than
	 * 64 GiB. A patch with our application header makes exactly what that promises, which must be within the limit.
	 */
	std::optional<std::uint64_t> max_output;
	BufferSizes buffers = {};
};

/**
 * Makes `output` from `source` and `patch`, which are regular files. Output appears whole and checked, replacing a
 * file of that name, or not at all; it must not be one of the other two, by whatever name. When it exists and is a
 * symbolic link, the link is replaced. Nothing is synced. A failure throws DecodeError and leaves no trace; a killed
 * process leaves no output, and on file systems without nameless files a file `.<output>.<number>.part`.
 *
 * Checked are the source's size and the output's size and XXH3-128 where our application header states them, else the
 * Adler-32 of those windows that have one.
 */
void DecodeFile(
    const std::string& source, const std::string& output, const std::string& patch, const DecodeLimits& limits = {});

/** The same over any bytes; appends to an empty target, which holds anything after a failure. */
void DecodePatch(
    const ReadableBytes& source, GrowingBytes& target, const ReadableBytes& patch, const DecodeLimits& limits = {});

} // namespace tarn::decoder

#endif
