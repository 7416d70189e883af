#include "archive/codec.h"

#include "base/error.h"

#include <zstd.h>

#include <brotli/decode.h>
#include <bzlib.h>
#include <lzma.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <new>
#include <string>

namespace tarn::archive {

namespace {

[[noreturn]] void Fail(Codec codec, const std::string& reason) {
	throw Error(std::string("cannot be decompressed (") + CodecName(codec) + "): " + reason);
}

void RequireAll(Codec codec, bool input_used, bool output_filled) {
	if (!output_filled) {
		Fail(codec, "it ends in the middle");
	}
	if (!input_used) {
		Fail(codec, "more bytes follow its end");
	}
}

[[noreturn]] void FailAtMore(Codec codec) {
	Fail(codec, "it unpacks to more than its frame declares");
}

/** Gives a library its memory, up to a limit: what bytes ask for is for their author to say. */
class BoundedMemory {
public:
	static void* Allocate(void* self, std::size_t size) { return static_cast<BoundedMemory*>(self)->Take(size); }
	static void* AllocateItems(void* self, std::size_t count, std::size_t size) { return Allocate(self, count * size); }
	static void* AllocateInts(void* self, int count, int size) {
		return Allocate(self, static_cast<std::size_t>(count) * static_cast<std::size_t>(size));
	}
	static void Release(void* self, void* address) { static_cast<BoundedMemory*>(self)->Give(address); }

private:
	// Before each piece lies its size, as wide as whatever is aligned most strictly.
	static constexpr std::size_t kPrefix = alignof(std::max_align_t);
	static_assert(kPrefix >= sizeof(std::size_t));

	void* Take(std::size_t size) {
		if (size > left_) {
			return nullptr;
		}
		auto* const begin = static_cast<char*>(::operator new(kPrefix + size, std::nothrow));
		if (begin == nullptr) {
			return nullptr;
		}
		left_ -= size;
		std::memcpy(begin, &size, sizeof size);
		return begin + kPrefix;
	}

	void Give(void* address) {
		if (address == nullptr) {
			return;
		}
		char* const begin = static_cast<char*>(address) - kPrefix;
		std::size_t size = 0;
		std::memcpy(&size, begin, sizeof size);
		left_ += size;
		::operator delete(begin);
	}

	std::size_t left_ = kMaxDecoderMemory;
};

void CopyStored(std::string_view packed, char* output, std::size_t size) {
	RequireAll(Codec::kStored, packed.size() <= size, packed.size() >= size);
	std::memcpy(output, packed.data(), size);
}

/** In one call, which takes no memory for a window, however large the window that the frame asks for. */
void DecompressZstd(std::string_view packed, char* output, std::size_t size) {
	struct Deleter {
		void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
	};
	const std::unique_ptr<ZSTD_DCtx, Deleter> context(ZSTD_createDCtx());
	if (!context) {
		throw std::bad_alloc();
	}
	const std::size_t result = ZSTD_decompressDCtx(context.get(), output, size, packed.data(), packed.size());
	if (ZSTD_isError(result) != 0) {
		Fail(Codec::kZstd, ZSTD_getErrorName(result));
	}
	RequireAll(Codec::kZstd, true, result == size);
}

void DecompressBrotli(std::string_view packed, char* output, std::size_t size) {
	struct Deleter {
		void operator()(BrotliDecoderState* state) const { BrotliDecoderDestroyInstance(state); }
	};
	BoundedMemory memory;
	const std::unique_ptr<BrotliDecoderState, Deleter> state(
	    BrotliDecoderCreateInstance(BoundedMemory::Allocate, BoundedMemory::Release, &memory));
	if (!state) {
		throw std::bad_alloc();
	}
	std::size_t in_left = packed.size();
	const auto* in = reinterpret_cast<const std::uint8_t*>(packed.data());
	std::size_t out_left = size;
	auto* out = reinterpret_cast<std::uint8_t*>(output);
	switch (BrotliDecoderDecompressStream(state.get(), &in_left, &in, &out_left, &out, nullptr)) {
	case BROTLI_DECODER_RESULT_SUCCESS:
		RequireAll(Codec::kBrotli, in_left == 0, out_left == 0);
		return;
	case BROTLI_DECODER_RESULT_NEEDS_MORE_INPUT:
		RequireAll(Codec::kBrotli, true, false);
		break;
	case BROTLI_DECODER_RESULT_NEEDS_MORE_OUTPUT:
		FailAtMore(Codec::kBrotli);
	case BROTLI_DECODER_RESULT_ERROR:
		break;
	}
	Fail(Codec::kBrotli, BrotliDecoderErrorString(BrotliDecoderGetErrorCode(state.get())));
}

const char* LzmaReason(lzma_ret result) {
	switch (result) {
	case LZMA_DATA_ERROR:
		return "it is damaged";
	case LZMA_MEM_ERROR:
	case LZMA_MEMLIMIT_ERROR:
		return "it needs too much memory";
	default:
		return "it is none of its kind";
	}
}

/** LZMA2 without a container. Its dictionary is the frame, so no packed byte says how large it is. */
void DecompressLzma(std::string_view packed, char* output, std::size_t size) {
	BoundedMemory memory;
	const lzma_allocator allocator = {BoundedMemory::AllocateItems, BoundedMemory::Release, &memory};
	lzma_options_lzma options = {};
	options.dict_size = std::max<std::uint32_t>(static_cast<std::uint32_t>(size), LZMA_DICT_SIZE_MIN);
	const std::array<lzma_filter, 2> filters = {{{LZMA_FILTER_LZMA2, &options}, {LZMA_VLI_UNKNOWN, nullptr}}};
	std::size_t in = 0;
	std::size_t out = 0;
	const lzma_ret result =
	    lzma_raw_buffer_decode(filters.data(), &allocator, reinterpret_cast<const std::uint8_t*>(packed.data()), &in,
	        packed.size(), reinterpret_cast<std::uint8_t*>(output), &out, size);
	if (result == LZMA_BUF_ERROR) {
		FailAtMore(Codec::kLzma);
	}
	if (result != LZMA_OK) {
		Fail(Codec::kLzma, LzmaReason(result));
	}
	RequireAll(Codec::kLzma, in == packed.size(), out == size);
}

class Bzip2Stream {
public:
	Bzip2Stream() {
		stream_.bzalloc = BoundedMemory::AllocateInts;
		stream_.bzfree = BoundedMemory::Release;
		stream_.opaque = &memory_;
		constexpr int kQuiet = 0;
		constexpr int kFast = 0;
		if (BZ2_bzDecompressInit(&stream_, kQuiet, kFast) != BZ_OK) {
			throw std::bad_alloc();
		}
	}
	~Bzip2Stream() { BZ2_bzDecompressEnd(&stream_); }
	Bzip2Stream(const Bzip2Stream&) = delete;
	Bzip2Stream& operator=(const Bzip2Stream&) = delete;

	/** In one call: all input is there, and all room for output. */
	void Run(std::string_view packed, char* output, std::size_t size) {
		stream_.next_in = const_cast<char*>(packed.data()); // which it only reads
		stream_.avail_in = static_cast<unsigned>(packed.size());
		stream_.next_out = output;
		stream_.avail_out = static_cast<unsigned>(size);
		switch (BZ2_bzDecompress(&stream_)) {
		case BZ_STREAM_END:
			RequireAll(Codec::kBzip2, stream_.avail_in == 0, stream_.avail_out == 0);
			return;
		case BZ_OK:
			RequireAll(Codec::kBzip2, true, stream_.avail_out == 0);
			FailAtMore(Codec::kBzip2);
		default:
			Fail(Codec::kBzip2, "it is damaged");
		}
	}

private:
	BoundedMemory memory_;
	bz_stream stream_ = {};
};

using Function = void (*)(std::string_view packed, char* output, std::size_t size);

struct Form {
	const char* name;
	Function decompress;
};

const Form& FormOf(Codec codec) {
	static constexpr std::array<Form, kCodecCount> kForms = {
	    {{"stored", CopyStored}, {"zstd", DecompressZstd}, {"brotli", DecompressBrotli}, {"lzma", DecompressLzma},
	        {"bzip2", [](std::string_view packed, char* output, std::size_t size) {
		         Bzip2Stream().Run(packed, output, size);
	         }}}}; // in the order of the numbers
	return kForms.at(static_cast<std::size_t>(codec));
}

} // namespace

const char* CodecName(Codec codec) {
	return FormOf(codec).name;
}

void Decompress(Codec codec, std::string_view packed, char* output, std::size_t size) {
	FormOf(codec).decompress(packed, output, size);
}

} // namespace tarn::archive
