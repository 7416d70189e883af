#include "archive/block_queue.h"

namespace tarn::archive {

char* BlockQueue::Acquire() {
	std::unique_lock<std::mutex> lock(mutex_);
	changed_.wait(lock, [this] { return stopped_ || filled_ - released_ < kBlocks; });
	return stopped_ ? nullptr : blocks_[filled_ % kBlocks].bytes.data();
}

void BlockQueue::Commit(std::size_t size) {
	{
		const std::lock_guard<std::mutex> lock(mutex_);
		blocks_[filled_ % kBlocks].size = size;
		++filled_;
	}
	changed_.notify_all();
}

void BlockQueue::Finish(std::exception_ptr error) {
	{
		const std::lock_guard<std::mutex> lock(mutex_);
		finished_ = true;
		error_ = std::move(error);
	}
	changed_.notify_all();
}

std::string_view BlockQueue::Next() {
	std::unique_lock<std::mutex> lock(mutex_);
	if (in_use_) {
		in_use_ = false;
		++released_;
		changed_.notify_all();
	}
	changed_.wait(lock, [this] { return finished_ || filled_ > released_; });
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
	{
		const std::lock_guard<std::mutex> lock(mutex_);
		stopped_ = true;
	}
	changed_.notify_all();
}

} // namespace tarn::archive
