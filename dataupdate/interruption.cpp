#include "dataupdate/interruption.h"

#include "dataupdate/internal/activity.h"
#include "dataupdate/messages.h"
#include "dataupdate/update_error.h"

#include <atomic>

namespace tarn::dataupdate {

namespace {

std::atomic<bool> requested(false);
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
	return requested && shields == 0;
}

void InterruptionPoint() {
	if (IsInterrupted()) {
		throw UpdateError(messages::kInterrupted);
	}
}

InterruptionShield::InterruptionShield() noexcept {
	++shields;
}

InterruptionShield::~InterruptionShield() {
	--shields;
}

} // namespace tarn::dataupdate
