#include "archive/payload_stream.h"

#include "base/error.h"
#include "base/process.h"

#include <zstd.h>

#include <memory>
#include <string>
#include <utility>

namespace tarn::archive {

namespace {

struct DecoderDeleter {
	void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

/** Decompresses chunk after chunk into the queue's blocks. */
class Decoder {
public:
	Decoder(BlockQueue& queue, std::uint64_t max_output)
	    : queue_(queue), left_(max_output), context_(ZSTD_createDCtx()) {
		if (!context_ ||
		    ZSTD_isError(ZSTD_DCtx_setParameter(context_.get(), ZSTD_d_windowLogMax, kMaxWindowLog)) != 0) {
			throw Error("cannot start to decompress");
		}
	}

	/** False when nobody wants the rest. */
	bool Feed(const std::vector<char>& chunk) {
		ZSTD_inBuffer input = {chunk.data(), chunk.size(), 0};
		bool full = false;
		while (input.pos < input.size || (full && !frame_ended_)) {
			if (output_.dst == nullptr && !NewBlock()) {
				return false;
			}
			const std::size_t result = ZSTD_decompressStream(context_.get(), &output_, &input);
			if (ZSTD_isError(result) != 0) {
				throw Error(std::string("cannot be decompressed: ") + ZSTD_getErrorName(result));
			}
			frame_ended_ = result == 0;
			full = output_.pos == output_.size;
			if (full) {
				Flush();
			}
		}
		return true;
	}

	void End() {
		if (!frame_ended_) {
			throw Error("has a payload that ends in the middle");
		}
		if (output_.dst != nullptr) {
			Flush();
		}
	}

private:
	bool NewBlock() {
		char* block = queue_.Acquire();
		output_ = {block, BlockQueue::kBlockSize, 0};
		return block != nullptr;
	}

	void Flush() {
		if (output_.pos > left_) {
			throw Error("unpacks to more than its head declares");
		}
		left_ -= output_.pos;
		if (output_.pos > 0) {
			queue_.Commit(output_.pos);
		}
		output_ = {nullptr, 0, 0};
	}

	BlockQueue& queue_;
	std::uint64_t left_;
	std::unique_ptr<ZSTD_DCtx, DecoderDeleter> context_;
	ZSTD_outBuffer output_ = {nullptr, 0, 0};
	bool frame_ended_ = false;
};

void DecodeAll(const ArchiveFile& archive, BlockQueue& queue, std::uint64_t max_output) {
	try {
		Decoder decoder(queue, max_output);
		std::vector<char> chunk;
		for (std::uint64_t index = 0; index < archive.Head().ChunkCount(); ++index) {
			archive.ReadChunk(index, chunk);
			if (!decoder.Feed(chunk)) {
				break;
			}
		}
		decoder.End();
		queue.Finish(nullptr);
	} catch (...) {
		queue.Finish(std::current_exception());
	}
}

// The new thread inherits a mask that blocks everything, so that the host's signal handlers never run on it.
template<typename Function>
std::thread StartWithoutSignals(Function function) {
	const process::AllSignalsBlocked blocked;
	return std::thread(std::move(function));
}

} // namespace

char* BlockQueue::Acquire() {
	const MutexLock lock(mutex_);
	while (!stopped_ && filled_ - released_ == kBlocks) {
		changed_.wait(mutex_);
	}
	return stopped_ ? nullptr : blocks_[filled_ % kBlocks].bytes.data();
}

void BlockQueue::Commit(std::size_t size) {
	const MutexLock lock(mutex_);
	blocks_[filled_ % kBlocks].size = size;
	++filled_;
	changed_.notify_all();
}

void BlockQueue::Finish(std::exception_ptr error) {
	const MutexLock lock(mutex_);
	finished_ = true;
	error_ = std::move(error);
	changed_.notify_all();
}

std::string_view BlockQueue::Next() {
	const MutexLock lock(mutex_);
	if (in_use_) {
		in_use_ = false;
		++released_;
		changed_.notify_all();
	}
	while (!finished_ && filled_ == released_) {
		changed_.wait(mutex_);
	}
	if (filled_ > released_) {
		in_use_ = true;
		const Block& block = blocks_[released_ % kBlocks];
		return {block.bytes.data(), block.size};
	}
	if (error_) {
		std::rethrow_exception(error_);
	}
	return {};
}

void BlockQueue::Stop() {
	const MutexLock lock(mutex_);
	stopped_ = true;
	changed_.notify_all();
}

PayloadStream::PayloadStream(const ArchiveFile& archive, std::uint64_t max_output)
    : decoder_(StartWithoutSignals([this, &archive, max_output] { DecodeAll(archive, queue_, max_output); })) {}

PayloadStream::~PayloadStream() {
	queue_.Stop();
	decoder_.join();
}

} // namespace tarn::archive
