#include "dataupdate/progress.h"

#include "dataupdate/internal/activity.h"

#include <mutex>
#include <utility>

namespace tarn::dataupdate {

namespace {

struct State {
	std::mutex mutex;
	Activity activity;
	std::uint64_t downloaded_bytes = 0;
};

State& GetState() {
	static State state;
	return state;
}

} // namespace

Activity CurrentActivity() {
	const std::lock_guard<std::mutex> guard(GetState().mutex);
	return GetState().activity;
}

ActivityScope::ActivityScope(Phase phase, const std::string& path) {
	InterruptionPoint();
	Activity inner;
	inner.phase = phase;
	inner.path = path;
	const std::lock_guard<std::mutex> guard(GetState().mutex);
	inner.serial = GetState().activity.serial + 1;
	outer_ = std::exchange(GetState().activity, std::move(inner));
}

ActivityScope::~ActivityScope() {
	const std::lock_guard<std::mutex> guard(GetState().mutex);
	outer_.serial = GetState().activity.serial + 1;
	GetState().activity = std::move(outer_);
}

void AddActivityBytes(std::uint64_t bytes) {
	const std::lock_guard<std::mutex> guard(GetState().mutex);
	GetState().activity.bytes += bytes;
}

std::uint64_t DownloadedBytes() {
	const std::lock_guard<std::mutex> guard(GetState().mutex);
	return GetState().downloaded_bytes;
}

void AddDownloadedBytes(std::uint64_t bytes) {
	const std::lock_guard<std::mutex> guard(GetState().mutex);
	GetState().downloaded_bytes += bytes;
}

} // namespace tarn::dataupdate
