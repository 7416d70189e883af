#include "host/terminal/downloads.h"

#include "base/mutex.h"

#include <tarncodesign/tarncodesign.h>

#include <algorithm>
#include <utility>

// An appliance's own platform may lack what only serves people.
#pragma weak tarnarchive_announced_size

namespace tarn::ctl {

namespace {

struct Plan {
	Mutex mutex;
	std::vector<PlannedDownload> downloads TARN_GUARDED_BY(mutex);
};

Plan& ThePlan() {
	static Plan plan;
	return plan;
}

DownloadPlace PlannedPlace(const std::string& path) {
	Plan& plan = ThePlan();
	const MutexLock guard(plan.mutex);
	const auto found = std::find_if(plan.downloads.begin(), plan.downloads.end(),
	    [&](const PlannedDownload& download) { return download.path == path; });
	if (found == plan.downloads.end()) {
		return {};
	}
	return {static_cast<std::size_t>(found - plan.downloads.begin()) + 1, plan.downloads.size(), found->bytes};
}

} // namespace

void PlanDownloads(std::vector<PlannedDownload> downloads) {
	Plan& plan = ThePlan();
	const MutexLock guard(plan.mutex);
	plan.downloads = std::move(downloads);
}

DownloadPlace PlaceOfDownload(const std::string& path) {
	DownloadPlace place = PlannedPlace(path);
	unsigned long long bytes = 0;
	if (place.bytes == 0 && tarnarchive_announced_size != nullptr && tarnarchive_announced_size(path.c_str(), &bytes)) {
		place.bytes = bytes;
	}
	return place;
}

} // namespace tarn::ctl
