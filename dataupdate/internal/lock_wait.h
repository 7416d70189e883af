/** @file Waiting for a file lock without ever blocking in the kernel, so that a deadline can be kept. */
#ifndef DATAUPDATE_INTERNAL_LOCK_WAIT_H
#define DATAUPDATE_INTERNAL_LOCK_WAIT_H

#include <chrono>

namespace tarn::dataupdate {

/** The instant from which a wait counts, and how long it may last. */
class LockWait {
public:
	/** Starts counting now. */
	explicit LockWait(unsigned long timeout_seconds);

	/**
	 * Tries flock(fd, operation | LOCK_NB) every 100 ms; false when the first try at or after the deadline, or after a
	 * request to end, failed.
	 */
	[[nodiscard]] bool Lock(int fd, int operation);

private:
	std::chrono::steady_clock::time_point now_;
	std::chrono::steady_clock::time_point deadline_;
};

} // namespace tarn::dataupdate

#endif
