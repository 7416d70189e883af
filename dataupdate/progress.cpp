#include "dataupdate/progress.h"

#include "base/mutex.h"
#include "dataupdate/internal/activity.h"

#include <utility>

namespace tarn::dataupdate {

namespace {

struct State {
	Mutex mutex;
	Activity activity TARN_GUARDED_BY(mutex);
	std::uint64_t downloaded_bytes TARN_GUARDED_BY(mutex) = 0;
};

State& GetState() {
	static State state;
	return state;
}

} // namespace

Activity CurrentActivity() {
	State& state = GetState();
	const MutexLock guard(state.mutex);
	return state.activity;
}

ActivityScope::ActivityScope(Phase phase, const std::string& path) {
	InterruptionPoint();
	Activity inner;
	inner.phase = phase;
	inner.path = path;
	State& state = GetState();
	const MutexLock guard(state.mutex);
	inner.serial = state.activity.serial + 1;
	outer_ = std::exchange(state.activity, std::move(inner));
}

ActivityScope::~ActivityScope() {
	State& state = GetState();
	const MutexLock guard(state.mutex);
	outer_.serial = state.activity.serial + 1;
	state.activity = std::move(outer_);
}

void AddActivityBytes(std::uint64_t bytes) {
	State& state = GetState();
	const MutexLock guard(state.mutex);
	state.activity.bytes += bytes;
}

void AddHashedBytes(std::uint64_t bytes) {
	State& state = GetState();
	const MutexLock guard(state.mutex);
	if (state.activity.phase == Phase::kHash) {
		state.activity.bytes += bytes;
	}
}

std::uint64_t DownloadedBytes() {
	State& state = GetState();
	const MutexLock guard(state.mutex);
	return state.downloaded_bytes;
}

void AddDownloadedBytes(std::uint64_t bytes) {
	State& state = GetState();
	const MutexLock guard(state.mutex);
	state.downloaded_bytes += bytes;
}

} // namespace tarn::dataupdate
