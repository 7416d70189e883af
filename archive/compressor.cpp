#include "archive/compressor.h"

#include "archive/head.h"
#include "base/error.h"

#include <brotli/encode.h>
#include <bzlib.h>
#include <lzma.h>

#include <algorithm>
#include <array>
#include <utility>

namespace tarn::archive {

namespace {

constexpr int kWindowLog = 21;
static_assert(1U << kWindowLog == kMaxFrameSize);

void RequireDone(bool is_done, const char* reason) {
	if (!is_done) {
		throw Error(std::string("The package could not be compressed: ") + reason + ".");
	}
}

void CheckZstd(std::size_t result) {
	RequireDone(ZSTD_isError(result) == 0, ZSTD_getErrorName(result));
}

std::string CompressZstd(std::string_view bytes, int level) {
	std::string packed;
	ZstdWriter writer(level, [&packed](std::string_view part) { packed += part; });
	writer.ExpectSize(bytes.size());
	writer.Write(bytes);
	writer.Finish();
	return packed;
}

std::string CompressBrotli(std::string_view bytes) {
	std::size_t size = BrotliEncoderMaxCompressedSize(bytes.size());
	std::string packed(size, '\0');
	const auto result = BrotliEncoderCompress(BROTLI_MAX_QUALITY, kWindowLog, BROTLI_MODE_GENERIC, bytes.size(),
	    reinterpret_cast<const std::uint8_t*>(bytes.data()), &size, reinterpret_cast<std::uint8_t*>(packed.data()));
	RequireDone(result == BROTLI_TRUE, "brotli failed");
	packed.resize(size);
	return packed;
}

std::string CompressLzma(std::string_view bytes) {
	constexpr std::uint32_t kPreset = 9;
	lzma_options_lzma options = {};
	RequireDone(lzma_lzma_preset(&options, kPreset | LZMA_PRESET_EXTREME) == 0, "lzma failed");
	options.dict_size = std::max<std::uint32_t>(static_cast<std::uint32_t>(bytes.size()), LZMA_DICT_SIZE_MIN);
	// For bytes rather than words: text, patches and databases have no even offsets.
	options.lc = LZMA_LCLP_MAX;
	options.lp = 0;
	options.pb = 0;
	const std::array<lzma_filter, 2> filters = {{{LZMA_FILTER_LZMA2, &options}, {LZMA_VLI_UNKNOWN, nullptr}}};
	constexpr std::size_t kRoom = 4096;
	std::string packed(bytes.size() + bytes.size() / 16 + kRoom, '\0');
	std::size_t size = 0;
	const lzma_ret result =
	    lzma_raw_buffer_encode(filters.data(), nullptr, reinterpret_cast<const std::uint8_t*>(bytes.data()),
	        bytes.size(), reinterpret_cast<std::uint8_t*>(packed.data()), &size, packed.size());
	RequireDone(result == LZMA_OK, "lzma failed");
	packed.resize(size);
	return packed;
}

std::string CompressBzip2(std::string_view bytes) {
	constexpr int kBlockSize = 9; // times 100,000
	constexpr std::size_t kRoom = 1024;
	std::string packed(bytes.size() + bytes.size() / 64 + kRoom, '\0');
	auto size = static_cast<unsigned>(packed.size());
	char* const input = const_cast<char*>(bytes.data()); // which it only reads
	const int result =
	    BZ2_bzBuffToBuffCompress(packed.data(), &size, input, static_cast<unsigned>(bytes.size()), kBlockSize, 0, 0);
	RequireDone(result == BZ_OK, "bzip2 failed");
	packed.resize(size);
	return packed;
}

} // namespace

std::string Compress(Codec codec, std::string_view bytes, int level) {
	switch (codec) {
	case Codec::kStored:
		break;
	case Codec::kZstd:
		return CompressZstd(bytes, level);
	case Codec::kBrotli:
		return CompressBrotli(bytes);
	case Codec::kLzma:
		return CompressLzma(bytes);
	case Codec::kBzip2:
		return CompressBzip2(bytes);
	}
	return std::string(bytes);
}

ZstdWriter::ZstdWriter(int level, Sink sink)
    : context_(ZSTD_createCCtx()), buffer_(ZSTD_CStreamOutSize()), sink_(std::move(sink)) {
	Require(context_ != nullptr, "There is no memory to compress.");
	CheckZstd(ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_compressionLevel, level));
	CheckZstd(ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_windowLog, kWindowLog));
}

void ZstdWriter::ExpectSize(std::uint64_t size) {
	CheckZstd(ZSTD_CCtx_setPledgedSrcSize(context_.get(), size));
}

void ZstdWriter::Compress(std::string_view bytes, ZSTD_EndDirective directive) {
	ZSTD_inBuffer input = {bytes.data(), bytes.size(), 0};
	bool more = true;
	while (more) {
		ZSTD_outBuffer output = {buffer_.data(), buffer_.size(), 0};
		const std::size_t left = ZSTD_compressStream2(context_.get(), &output, &input, directive);
		CheckZstd(left);
		if (output.pos > 0) {
			sink_({buffer_.data(), output.pos});
		}
		more = directive == ZSTD_e_end ? left != 0 : input.pos < input.size;
	}
}

} // namespace tarn::archive
