#include "publisher/parallel.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>

namespace tarn::publisher {

namespace {

class Pool {
public:
	Pool(const std::vector<std::size_t>& order, const std::function<void(std::size_t)>& work,
	    const std::function<void(std::size_t)>& finished)
	    : order_(order), work_(work), finished_(finished) {}

	void Run() {
		for (std::size_t at = next_++; at < order_.size() && !failed_; at = next_++) {
			try {
				work_(order_[at]);
				const std::lock_guard<std::mutex> lock(mutex_);
				finished_(++done_);
			} catch (...) {
				const std::lock_guard<std::mutex> lock(mutex_);
				failed_ = true;
				error_ = error_ ? error_ : std::current_exception();
			}
		}
	}

	void RethrowError() const {
		if (error_) {
			std::rethrow_exception(error_);
		}
	}

private:
	const std::vector<std::size_t>& order_;
	const std::function<void(std::size_t)>& work_;
	const std::function<void(std::size_t)>& finished_;
	std::atomic<std::size_t> next_ = 0;
	std::atomic<bool> failed_ = false;
	std::mutex mutex_;
	std::size_t done_ = 0;
	std::exception_ptr error_;
};

} // namespace

void DoInParallel(const std::vector<std::size_t>& order, const std::function<void(std::size_t)>& work,
    const std::function<void(std::size_t)>& finished) {
	Pool pool(order, work, finished);
	const std::size_t processors = std::max(1U, std::thread::hardware_concurrency());
	std::vector<std::thread> threads;
	try {
		while (threads.size() + 1 < std::min(processors, order.size())) {
			threads.emplace_back([&pool] { pool.Run(); });
		}
	} catch (const std::system_error&) {
		// Where no more threads are allowed, those that there are do it.
	}
	pool.Run();
	std::for_each(threads.begin(), threads.end(), [](std::thread& thread) { thread.join(); });
	pool.RethrowError();
}

} // namespace tarn::publisher
