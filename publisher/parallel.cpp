#include "publisher/parallel.h"

#include "base/mutex.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <system_error>
#include <thread>

namespace tarn::publisher {

void DoInParallel(const std::vector<std::size_t>& order, const std::function<void(std::size_t)>& work,
    const std::function<void(std::size_t)>& finished) {
	std::atomic<std::size_t> next = 0;
	struct {
		Mutex mutex;
		std::size_t done TARN_GUARDED_BY(mutex) = 0;
		std::exception_ptr error TARN_GUARDED_BY(mutex);
	} outcome;
	const auto run = [&] {
		for (std::size_t at = next++; at < order.size(); at = next++) {
			try {
				work(order[at]);
				const MutexLock lock(outcome.mutex);
				finished(++outcome.done);
			} catch (...) {
				next = order.size();
				const MutexLock lock(outcome.mutex);
				outcome.error = outcome.error ? outcome.error : std::current_exception();
			}
		}
	};
	const std::size_t processors = std::max(1U, std::thread::hardware_concurrency());
	std::vector<std::thread> threads;
	try {
		while (threads.size() + 1 < std::min(processors, order.size())) {
			threads.emplace_back(run);
		}
	} catch (const std::system_error&) {
		// No more threads are allowed: those that there are do the work.
	}
	run();
	std::for_each(threads.begin(), threads.end(), [](std::thread& thread) { thread.join(); });
	const MutexLock lock(outcome.mutex);
	if (outcome.error) {
		std::rethrow_exception(outcome.error);
	}
}

} // namespace tarn::publisher
