/** @file Compressing the frames of a payload. */
#ifndef ARCHIVE_COMPRESSOR_H
#define ARCHIVE_COMPRESSOR_H

#include "archive/codec.h"
#include "archive/writer.h"
#include "base/handle.h"

#include <zstd.h>

#include <string>
#include <string_view>
#include <vector>

namespace tarn::archive {

/**
 * Compresses a frame, in one thread, so that the same input gives the same output. The level is zstd's; the others know
 * one that is worth its time. Throws Error.
 */
[[nodiscard]] std::string Compress(Codec codec, std::string_view bytes, int level);

/** Compresses a byte stream with zstd in one thread, to learn how small it becomes. */
class ZstdWriter {
public:
	ZstdWriter(int level, Sink sink);
	/** Tells beforehand how many bytes will come, so that few of them need little memory. */
	void ExpectSize(std::uint64_t size);
	void Write(std::string_view bytes) { Compress(bytes, ZSTD_e_continue); }
	void Finish() { Compress({}, ZSTD_e_end); }

private:
	void Compress(std::string_view bytes, ZSTD_EndDirective directive);

	Handle<ZSTD_CCtx, ZSTD_freeCCtx> context_;
	std::vector<char> buffer_;
	Sink sink_;
};

} // namespace tarn::archive

#endif
