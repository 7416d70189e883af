#include "dataupdate/internal/lock_poll.h"

#include "dataupdate/interruption.h"

#include <sys/file.h>
#include <unistd.h>

#include <algorithm>

namespace tarn::dataupdate {

namespace {

constexpr useconds_t kPollMicroseconds = 100000;

// Keeps "wait for ever", written as the largest number, within what the clock can count.
constexpr unsigned long kLongestWaitSeconds = 100UL * 365 * 24 * 3600;

} // namespace

LockWait::LockWait(unsigned long timeout_seconds)
    : now_(std::chrono::steady_clock::now()),
      deadline_(now_ + std::chrono::seconds(std::min(timeout_seconds, kLongestWaitSeconds))) {}

bool LockWait::Lock(int fd, int operation) {
	while (flock(fd, operation | LOCK_NB) != 0) {
		if (now_ >= deadline_ || IsInterrupted()) {
			return false;
		}
		usleep(kPollMicroseconds);
		now_ = std::chrono::steady_clock::now();
	}
	return true;
}

} // namespace tarn::dataupdate
