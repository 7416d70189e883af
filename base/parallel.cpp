#include "base/parallel.h"

#include "base/mutex.h"
#include "base/signals.h"

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <exception>

namespace tarn {

unsigned Processors() {
	cpu_set_t set;
	const int count = sched_getaffinity(0, sizeof set, &set) == 0 ? CPU_COUNT(&set) : 1;
	return static_cast<unsigned>(std::max(count, 1));
}

std::vector<std::thread> StartThreads(std::size_t most, const std::function<void()>& run) {
	const process::AllSignalsBlocked blocked;
	std::vector<std::thread> threads;
	threads.reserve(most);
	try {
		while (threads.size() < most) {
			threads.emplace_back(run);
		}
	} catch (const std::exception&) {
		// No more threads are allowed, or there is no memory for them: those that there are do the work.
	}
	return threads;
}

void DoInParallel(
    std::size_t count, const std::function<void(std::size_t)>& work, const std::function<void(std::size_t)>& finished) {
	std::atomic<std::size_t> next = 0;
	struct {
		Mutex mutex;
		std::size_t done TARN_GUARDED_BY(mutex) = 0;
		std::size_t failed TARN_GUARDED_BY(mutex) = 0;
		std::exception_ptr error TARN_GUARDED_BY(mutex);
	} outcome;
	const auto run = [&] {
		for (std::size_t at = next++; at < count; at = next++) {
			try {
				work(at);
				const MutexLock lock(outcome.mutex);
				++outcome.done;
				if (finished) {
					finished(outcome.done);
				}
			} catch (...) {
				next = count;
				const MutexLock lock(outcome.mutex);
				if (!outcome.error || at < outcome.failed) {
					outcome.failed = at;
					outcome.error = std::current_exception();
				}
			}
		}
	};
	std::vector<std::thread> threads =
	    StartThreads(std::min<std::size_t>(Processors(), std::max<std::size_t>(count, 1)) - 1, run);
	run();
	std::for_each(threads.begin(), threads.end(), [](std::thread& thread) { thread.join(); });
	const MutexLock lock(outcome.mutex);
	if (outcome.error) {
		std::rethrow_exception(outcome.error);
	}
}

} // namespace tarn
