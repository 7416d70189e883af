#include "archive/block_queue.h"

namespace tarn::archive {

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

} // namespace tarn::archive
