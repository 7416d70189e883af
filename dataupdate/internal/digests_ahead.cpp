#include "dataupdate/internal/digests_ahead.h"

#include "base/parallel.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/digest_stream.h"
#include "dataupdate/updater.h"
#include "dataupdate/utils.h"

#include <boost/filesystem.hpp>

#include <algorithm>
#include <atomic>
#include <utility>

namespace tarn::dataupdate {

namespace {

constexpr unsigned kMostPerProcessor = 4;

std::atomic<unsigned> most_threads(0);

std::optional<std::string> DigestAt(const std::string& path) {
	if (!boost::filesystem::exists(boost::filesystem::status(path))) {
		return std::nullopt;
	}
	InterruptionPoint();
	DigestStream stream(path);
	return GetSha384(stream);
}

} // namespace

void LimitDigestThreads(unsigned count) {
	most_threads = count;
}

DigestsAhead::DigestsAhead(std::vector<std::string> paths, Caller caller)
    : paths_(std::move(paths)), results_(paths_.size()) {
	const unsigned limit =
	    most_threads == 0 ? Processors() : std::min(most_threads.load(), kMostPerProcessor * Processors());
	// The caller is one of the threads that the limit allows.
	const std::size_t useful = paths_.size() + (caller == Caller::kHasOtherWork ? 1 : 0);
	threads_ = StartThreads(std::max<std::size_t>(std::min<std::size_t>(limit, useful), 1) - 1, [this] {
		while (TakeOne()) {
		}
	});
}

DigestsAhead::~DigestsAhead() {
	{
		const MutexLock lock(mutex_);
		begun_ = paths_.size();
	}
	for (std::thread& thread : threads_) {
		thread.join();
	}
}

bool DigestsAhead::TakeOne() {
	std::size_t index = 0;
	{
		const MutexLock lock(mutex_);
		if (begun_ == paths_.size()) {
			return false;
		}
		index = begun_++;
	}
	Result result;
	try {
		result.digest = DigestAt(paths_[index]);
	} catch (...) {
		result.error = std::current_exception();
	}
	result.is_there = true;
	const MutexLock lock(mutex_);
	results_[index] = std::move(result);
	arrived_.notify_all();
	return true;
}

bool DigestsAhead::IsThere(std::size_t index) {
	const MutexLock lock(mutex_);
	return results_[index].is_there;
}

std::optional<std::string> DigestsAhead::Next() {
	const std::size_t index = asked_++;
	const ActivityScope activity(Phase::kHash, paths_[index]);
	while (!IsThere(index) && TakeOne()) {
	}
	const MutexLock lock(mutex_);
	while (!results_[index].is_there) {
		arrived_.wait(mutex_);
	}
	const Result result = std::exchange(results_[index], {});
	if (result.error) {
		std::rethrow_exception(result.error);
	}
	return result.digest;
}

} // namespace tarn::dataupdate
