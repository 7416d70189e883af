#include "dataupdate/progress.h"

#include "base/mutex.h"
#include "dataupdate/internal/activity.h"

#include <list>

namespace tarn::dataupdate {

namespace {

Mutex mutex;
std::list<Activity> open_activities TARN_GUARDED_BY(mutex);
std::uint64_t serial TARN_GUARDED_BY(mutex) = 0;
std::uint64_t downloaded_bytes TARN_GUARDED_BY(mutex) = 0;

} // namespace

Activity CurrentActivity() {
	const MutexLock guard(mutex);
	Activity current = open_activities.empty() ? Activity() : open_activities.back();
	current.serial = serial;
	return current;
}

ActivityScope::ActivityScope(Phase phase, const std::string& path) {
	InterruptionPoint();
	const MutexLock guard(mutex);
	activity_ = open_activities.insert(open_activities.end(), Activity{phase, path});
	++serial;
}

ActivityScope::~ActivityScope() {
	const MutexLock guard(mutex);
	open_activities.erase(activity_);
	++serial;
}

void AddActivityBytes(std::uint64_t bytes) {
	const MutexLock guard(mutex);
	if (!open_activities.empty()) {
		open_activities.back().bytes += bytes;
	}
}

void AddHashedBytes(std::uint64_t bytes) {
	const MutexLock guard(mutex);
	if (!open_activities.empty() && open_activities.back().phase == Phase::kHash) {
		open_activities.back().bytes += bytes;
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
