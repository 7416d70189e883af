#include "dataupdate/progress.h"

#include "base/mutex.h"
#include "dataupdate/internal/activity.h"

#include <utility>

namespace tarn::dataupdate {

namespace {

Mutex mutex;
Activity current TARN_GUARDED_BY(mutex);
std::uint64_t downloaded_bytes TARN_GUARDED_BY(mutex) = 0;

} // namespace

Activity CurrentActivity() {
	const MutexLock guard(mutex);
	return current;
}

ActivityScope::ActivityScope(Phase phase, const std::string& path) {
	InterruptionPoint();
	Activity inner;
	inner.phase = phase;
	inner.path = path;
	const MutexLock guard(mutex);
	inner.serial = current.serial + 1;
	outer_ = std::exchange(current, std::move(inner));
}

ActivityScope::~ActivityScope() {
	const MutexLock guard(mutex);
	outer_.serial = current.serial + 1;
	current = std::move(outer_);
}

void AddActivityBytes(std::uint64_t bytes) {
	const MutexLock guard(mutex);
	current.bytes += bytes;
}

void AddHashedBytes(std::uint64_t bytes) {
	const MutexLock guard(mutex);
	if (current.phase == Phase::kHash) {
		current.bytes += bytes;
	}
}

std::uint64_t DownloadedBytes() {
	const MutexLock guard(mutex);
	return downloaded_bytes;
}

void AddDownloadedBytes(std::uint64_t bytes) {
	const MutexLock guard(mutex);
	downloaded_bytes += bytes;
}

} // namespace tarn::dataupdate
