#include "checked_io.h"

#include <dataupdate/paths.h>
#include <dataupdate/update_error.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

namespace tarn::ctl {

using dataupdate::UpdateError;

namespace {

constexpr useconds_t kPauseMicroseconds = 20000;
constexpr int kMostPauses = 100;
// Longer than a writer takes from its first byte to its last, and short for a file that was cut off for good.
constexpr std::time_t kWritingSeconds = 2;

bool MayBeBeingWritten(const std::string& path) {
	struct stat status {};
	return stat(path.c_str(), &status) == 0 && std::labs(std::time(nullptr) - status.st_mtime) < kWritingSeconds;
}

} // namespace

Json::Value CheckedIO::ReadJson(const std::string& path) const {
	if (path == dataupdate::kCachedInfo) {
		if (GetSize(path) > kLargestDocument) {
			throw UpdateError("Fail to decode: " + path);
		}
		return IOUtils::ReadJson(path); // Nobody writes it while its lock is held.
	}
	for (int pauses = 0;; ++pauses) {
		try {
			return IOUtils::ReadJson(path);
		} catch (const UpdateError& error) {
			if (error.what() != "Fail to decode: " + path || pauses == kMostPauses || !MayBeBeingWritten(path)) {
				throw;
			}
		}
		usleep(kPauseMicroseconds);
	}
}

} // namespace tarn::ctl
