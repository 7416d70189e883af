#include "host/library/reader_lock.h"

#include "base/unique_fd.h"
#include "dataupdate/paths.h"
#include "dataupdate/project_lock.h"
#include "host/library/failure.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

namespace tarn::ctl {

namespace {

constexpr mode_t kMode = 0644;
constexpr mode_t kPermissions = 07777;

} // namespace

ReaderLock::ReaderLock(const std::string& id, unsigned long timeout_seconds)
    : fd_(TARNDBUDGetFileLock(id.c_str(), timeout_seconds)) {
	if (fd_ == -1) {
		throw CommandError(kLocked, "The database is being replaced; try later");
	}
}

ReaderLock::~ReaderLock() {
	TARNDBUDReleaseFileLock(fd_);
}

bool MakeReaderLockFile(const std::string& id) {
	// Nothing below /run survives a restart.
	std::error_code ignored;
	std::filesystem::create_directories(dataupdate::kLockDirectory, ignored);
	const std::string path = dataupdate::UsingLockPath(id);
	const UniqueFd file(open(path.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kMode));
	struct stat status {};
	if (!file || fstat(file.Get(), &status) != 0) {
		return false;
	}
	// Somebody's mask may have shut readers out.
	return status.st_uid != geteuid() || (status.st_mode & kPermissions) == kMode || fchmod(file.Get(), kMode) == 0;
}

} // namespace tarn::ctl
