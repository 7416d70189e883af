#include "dataupdate/internal/digests_ahead.h"

#include "base/parallel.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/digest_stream.h"
#include "dataupdate/updater.h"
#include "dataupdate/utils.h"

#include <boost/filesystem.hpp>

#include <algorithm>
#include <utility>

namespace tarn::dataupdate {

namespace {

constexpr unsigned kMostPerProcessor = 4;

std::atomic<unsigned> most_threads(0);

std::optional<std::string> DigestAt(const std::string& path, const std::atomic<bool>& is_unwanted) {
	if (!boost::filesystem::exists(boost::filesystem::status(path))) {
		return std::nullopt;
	}
	InterruptionPoint();
	DigestStream stream(path, &is_unwanted);
	return GetSha384(stream);
}

} // namespace

void LimitDigestThreads(unsigned count) {
	most_threads = count;
}

unsigned MostDigestThreads() {
	return most_threads == 0 ? Processors() : std::min(most_threads.load(), kMostPerProcessor * Processors());
}

DigestsAhead::DigestsAhead(std::size_t count, std::function<std::string(std::size_t)> path_of, Caller caller)
    : count_(count), path_of_(std::move(path_of)) {
	// The caller is one of the threads that the limit allows.
	const std::size_t useful = count_ + (caller == Caller::kHasOtherWork ? 1 : 0);
	threads_ = StartThreads(std::max<std::size_t>(std::min<std::size_t>(MostDigestThreads(), useful), 1) - 1, [this] {
		while (TakeOne(true)) {
		}
	});
}

DigestsAhead::DigestsAhead(const std::vector<std::string>& paths, Caller caller)
    : DigestsAhead(
          paths.size(), [paths](std::size_t index) { return paths[index]; }, caller) {}

DigestsAhead::~DigestsAhead() {
	is_unwanted_ = true;
	{
		const MutexLock lock(mutex_);
		begun_ = count_;
		changed_.notify_all();
	}
	for (std::thread& thread : threads_) {
		thread.join();
	}
}

std::optional<std::size_t> DigestsAhead::BeginOne(bool waits_for_room) {
	const MutexLock lock(mutex_);
	while (waits_for_room && begun_ < count_ && !HasRoom()) {
		changed_.wait(mutex_);
	}
	return begun_ < count_ && HasRoom() ? std::optional(begun_++) : std::nullopt;
}

bool DigestsAhead::TakeOne(bool waits_for_room) {
	const std::optional<std::size_t> index = BeginOne(waits_for_room);
	if (!index) {
		return false;
	}
	Result result;
	try {
		result.digest = DigestAt(path_of_(*index), is_unwanted_);
	} catch (...) {
		result.error = std::current_exception();
	}
	result.is_there = true;
	const MutexLock lock(mutex_);
	ResultOf(*index) = std::move(result);
	changed_.notify_all();
	return true;
}

bool DigestsAhead::IsThere(std::size_t index) {
	const MutexLock lock(mutex_);
	return ResultOf(index).is_there;
}

DigestsAhead::Result DigestsAhead::Take(std::size_t index) {
	const MutexLock lock(mutex_);
	while (!ResultOf(index).is_there) {
		changed_.wait(mutex_);
	}
	++asked_;
	changed_.notify_all();
	return std::exchange(ResultOf(index), {});
}

std::optional<std::string> DigestsAhead::Next() {
	std::size_t index = 0;
	{
		const MutexLock lock(mutex_);
		index = asked_;
	}
	const ActivityScope activity(Phase::kHash, path_of_(index));
	while (!IsThere(index) && TakeOne(false)) { // Without room, the next result has been begun.
	}
	const Result result = Take(index);
	if (result.error) {
		std::rethrow_exception(result.error);
	}
	return result.digest;
}

} // namespace tarn::dataupdate
