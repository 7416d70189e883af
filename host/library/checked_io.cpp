#include "host/library/checked_io.h"

#include "dataupdate/messages.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "host/library/failure.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>

namespace tarn::ctl {

using dataupdate::UpdateError;

namespace {

constexpr useconds_t kPauseMicroseconds = 20000;
constexpr int kMostPauses = 100;

bool MayBeBeingWritten(const std::string& path) {
	struct stat status {};
	timespec now{};
	return clock_gettime(CLOCK_REALTIME, &now) == 0 && stat(path.c_str(), &status) == 0 && IsNew(status.st_mtim, now);
}

bool Holds(const std::string& path, const Json::Value& value) {
	try {
		return dataupdate::IOUtils().ReadJson(path).toStyledString() == value.toStyledString();
	} catch (const UpdateError&) {
		return false;
	}
}

} // namespace

bool IsNew(const timespec& changed, const timespec& now) {
	constexpr double kSeconds = 2;
	constexpr double kNanosecond = 1e-9;
	const auto seconds = static_cast<double>(now.tv_sec - changed.tv_sec);
	return std::abs(seconds + static_cast<double>(now.tv_nsec - changed.tv_nsec) * kNanosecond) < kSeconds;
}

Json::Value CheckedIO::ReadJson(const std::string& path) const {
	if (path == dataupdate::kCachedInfo) {
		if (GetSize(path) > kLargestDocument) {
			throw UpdateError(dataupdate::messages::kCannotDecode + path);
		}
		return IOUtils::ReadJson(path); // Nobody writes it while its lock is held.
	}
	for (int pauses = 0;; ++pauses) {
		try {
			return IOUtils::ReadJson(path);
		} catch (const UpdateError& error) {
			if (CategoryOf(error.what()) != Category::kUndecodable || pauses == kMostPauses ||
			    !MayBeBeingWritten(path)) {
				throw;
			}
		}
		usleep(kPauseMicroseconds);
	}
}

void CheckedIO::WriteJson(const std::string& path, const Json::Value& value) const {
	IOUtils::WriteJson(path, value);
	if (!Holds(path, value)) {
		throw UpdateError(dataupdate::messages::kCannotWrite + path);
	}
}

} // namespace tarn::ctl
