#include "interruption.h"

#include "update_error.h"

#include <atomic>

namespace tarn::dataupdate {

namespace {

std::atomic<bool> requested(false);
std::atomic<bool> replacing_files(false);
std::atomic<int> shields(0);
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler may not wait for a lock");

} // namespace

void RequestInterruption() noexcept {
	requested = true;
}

bool IsInterruptionRequested() noexcept {
	return requested;
}

void ForgetInterruption() noexcept {
	requested = false;
}

bool IsInterrupted() noexcept {
	return requested && !replacing_files && shields == 0;
}

void InterruptionPoint() {
	if (IsInterrupted()) {
		throw UpdateError("Interrupted");
	}
}

InterruptionShield::InterruptionShield() noexcept {
	++shields;
}

InterruptionShield::~InterruptionShield() {
	--shields;
}

void SetReplacing(bool replacing) noexcept {
	replacing_files = replacing;
}

} // namespace tarn::dataupdate
