/** @file The digests of many files, taken by several threads. */
#ifndef DATAUPDATE_INTERNAL_DIGESTS_AHEAD_H
#define DATAUPDATE_INTERNAL_DIGESTS_AHEAD_H

#include "base/mutex.h"

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tarn::dataupdate {

/**
 * Takes digests ahead of the thread that asks for them one after the other, which takes its share. Whoever stops asking
 * has wasted no more than what was begun: the destructor waits for that and begins nothing more.
 *
 * Progress is told of the file that is asked for, with the bytes that all threads read meanwhile.
 */
class DigestsAhead {
public:
	/** What the caller does until it asks. */
	enum class Caller { kHelps, kHasOtherWork };

	/** @param paths  in the order in which they will be asked for */
	explicit DigestsAhead(std::vector<std::string> paths, Caller caller = Caller::kHelps);
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

	/** Takes the digest of a file that no thread has begun yet; false when there is none. */
	bool TakeOne();
	bool IsThere(std::size_t index);

	const std::vector<std::string> paths_;
	std::size_t asked_ = 0;
	Mutex mutex_;
	std::condition_variable_any arrived_;
	std::vector<Result> results_ TARN_GUARDED_BY(mutex_);
	std::size_t begun_ TARN_GUARDED_BY(mutex_) = 0;
	std::vector<std::thread> threads_;
};

} // namespace tarn::dataupdate

#endif
