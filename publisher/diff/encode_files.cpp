#include "publisher/diff/encode_files.h"

#include "base/mutex.h"
#include "base/parallel.h"

#include <algorithm>
#include <condition_variable>
#include <numeric>

namespace tarn::publisher {

namespace {

std::uint64_t SizeOf(const std::optional<TreeFile>& file) {
	return file ? file->size : 0;
}

/** Memory that tasks take from and give back. */
class SharedMemory {
public:
	explicit SharedMemory(std::uint64_t bytes) : free_(bytes) {}

	/** Waits until so much is free, which must not be more than there is in all. */
	void Take(std::uint64_t bytes) {
		const MutexLock lock(mutex_);
		while (free_ < bytes) {
			changed_.wait(mutex_);
		}
		free_ -= bytes;
	}
	void GiveBack(std::uint64_t bytes) {
		{
			const MutexLock lock(mutex_);
			free_ += bytes;
		}
		changed_.notify_all();
	}

private:
	Mutex mutex_;
	std::condition_variable_any changed_;
	std::uint64_t free_ TARN_GUARDED_BY(mutex_);
};

/** A task's part of the memory, for as long as the object lives. */
class Share {
public:
	Share(SharedMemory& memory, std::uint64_t bytes) : memory_(memory), bytes_(bytes) { memory_.Take(bytes_); }
	~Share() { memory_.GiveBack(bytes_); }
	Share(const Share&) = delete;
	Share& operator=(const Share&) = delete;

private:
	SharedMemory& memory_;
	std::uint64_t bytes_;
};

} // namespace

std::uint64_t MemoryOf(const EncodingTask& task, std::uint64_t limit) {
	constexpr std::uint64_t kRowsPerByte = 16; // where rows are matched that hold next to nothing
	const std::uint64_t before = SizeOf(task.change.before);
	const std::uint64_t after = SizeOf(task.change.after);
	const std::uint64_t rows = task.is_database ? kRowsPerByte * std::max(before, after) : 0;
	return std::min(limit, std::max(VcdiffWindows::Of(before, after, limit).Memory(before), rows));
}

std::vector<EncodedFile> EncodeFiles(const std::vector<EncodingTask>& tasks, const Encoders& encoders,
    const WorkDirectory& work, const std::function<void(std::size_t done)>& step) {
	std::vector<std::size_t> order(tasks.size());
	std::iota(order.begin(), order.end(), 0);
	std::stable_sort(order.begin(), order.end(), [&tasks](std::size_t left, std::size_t right) {
		return SizeOf(tasks[left].change.after) > SizeOf(tasks[right].change.after);
	});
	std::vector<EncodedFile> encoded(tasks.size());
	SharedMemory memory(encoders.memory);
	const auto encode = [&](std::size_t at) {
		const EncodingTask& task = tasks[order[at]];
		Encoders own = encoders;
		own.memory = MemoryOf(task, encoders.memory);
		const Share share(memory, own.memory);
		encoded[order[at]] = EncodeFile(task, own, work.Make("encoding/" + std::to_string(order[at])));
	};
	DoInParallel(order.size(), encode, step);
	return encoded;
}

} // namespace tarn::publisher
