/** @file The digests of many files, taken by several threads. */
#ifndef DATAUPDATE_INTERNAL_DIGESTS_AHEAD_H
#define DATAUPDATE_INTERNAL_DIGESTS_AHEAD_H

#include "base/mutex.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tarn::dataupdate {

/** How many threads may take digests at once, as LimitDigestThreads() has it, the caller's included. */
unsigned MostDigestThreads();

/**
 * Takes digests ahead of the thread that asks for them one after the other, which takes its share. Whoever stops asking
 * waits for no more than a block of each file that was begun: the destructor ends the reading. Only so many digests are
 * taken ahead that memory does not grow with the number of files.
 *
 * Progress is told of the file that is asked for, with the bytes that all threads read meanwhile.
 */
class DigestsAhead {
public:
	/** What the caller does until it asks. */
	enum class Caller { kHelps, kHasOtherWork };

	/**
	 * Paths by their numbers, in the order in which they will be asked for; several threads call the function at a
	 * time.
	 */
	DigestsAhead(std::size_t count, std::function<std::string(std::size_t)> path_of, Caller caller = Caller::kHelps);
	/** Paths in the order in which they will be asked for. */
	explicit DigestsAhead(const std::vector<std::string>& paths, Caller caller = Caller::kHelps);
	~DigestsAhead();
	DigestsAhead(const DigestsAhead&) = delete;
	DigestsAhead& operator=(const DigestsAhead&) = delete;

	/**
	 * The next path's digest as by FileSha384(), or none when nothing exists there. Throws what that throws, and
	 * Boost's filesystem error when nobody can tell whether anything exists there.
	 */
	[[nodiscard]] std::optional<std::string> Next();

private:
	struct Result {
		bool is_there = false;
		std::optional<std::string> digest;
		std::exception_ptr error;
	};

	static constexpr std::size_t kMostAhead = 256;

	/** Takes the digest of a file that no thread has begun yet; false when there is none, or no room. */
	[[nodiscard]] bool TakeOne(bool waits_for_room);
	/** The caller must not wait for room, because the caller makes it. */
	std::optional<std::size_t> BeginOne(bool waits_for_room);
	/** Whether one may be begun: its result has a place. */
	bool HasRoom() const TARN_REQUIRES(mutex_) { return begun_ < asked_ + kMostAhead; }
	Result& ResultOf(std::size_t index) TARN_REQUIRES(mutex_) { return results_[index % kMostAhead]; }
	bool IsThere(std::size_t index);
	/** Waits for a result and gives its place to another one. */
	Result Take(std::size_t index);

	const std::size_t count_;
	const std::function<std::string(std::size_t)> path_of_;
	std::atomic<bool> is_unwanted_{false};
	Mutex mutex_;
	std::condition_variable_any changed_;
	std::array<Result, kMostAhead> results_ TARN_GUARDED_BY(mutex_);
	std::size_t asked_ TARN_GUARDED_BY(mutex_) = 0;
	std::size_t begun_ TARN_GUARDED_BY(mutex_) = 0;
	std::vector<std::thread> threads_;
};

} // namespace tarn::dataupdate

#endif
