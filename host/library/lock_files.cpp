#include "host/library/lock_files.h"

#include "base/unique_fd.h"
#include "base/volume_safety.h"
#include "dataupdate/paths.h"
#include "host/library/failure.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <optional>
#include <vector>

namespace tarn::ctl {

namespace {

constexpr mode_t kPrivate = 0600;
constexpr mode_t kOpenToReaders = 0755;
constexpr mode_t kPermissions = 07777;

[[noreturn]] void Refuse(const std::string& path, const std::string& reason) {
	throw CommandError(kFailed, path + " " + reason +
	                                ", so others could hold off all updates; see who made it, remove it and run "
	                                "\"tarndbudctl init\"");
}

[[noreturn]] void FailToMake(const std::string& path) {
	throw CommandError(kFailed, "The lock file " + path + " cannot be made (" + std::strerror(errno) + ")");
}

bool IsOwn(const struct stat& status) {
	return status.st_uid == 0 || status.st_uid == geteuid();
}

void Make(const std::string& path) {
	const UniqueFd file(
	    open(path.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kPrivate)); // A FIFO would block.
	if (!file && errno == ELOOP) {
		Refuse(path, "is a link");
	}
	struct stat status {};
	if (!file || fstat(file.Get(), &status) != 0) {
		FailToMake(path);
	}
	if (!S_ISREG(status.st_mode) || !IsOwn(status)) {
		Refuse(path, "is no file of root's");
	}
	if ((status.st_mode & kPermissions) != kPrivate && fchmod(file.Get(), kPrivate) != 0) {
		FailToMake(path);
	}
}

/** Readers have to reach their lock files, whatever mask the directory was made under. */
void PrepareDirectory() {
	if (const std::optional<UnsafePlace> unsafe = FindUnsafePlace(dataupdate::kLockDirectory)) {
		Refuse(unsafe->path, unsafe->reason);
	}
	struct stat status {};
	if (stat(dataupdate::kLockDirectory, &status) != 0 || ((status.st_mode & kOpenToReaders) != kOpenToReaders &&
	                                                          chmod(dataupdate::kLockDirectory, kOpenToReaders) != 0)) {
		FailToMake(dataupdate::kLockDirectory);
	}
}

std::vector<std::string> Ids(const Services& services) {
	try {
		return services.config->GetDatabaseIDs();
	} catch (const std::exception&) {
		return {}; // Without a list of databases the library locks none, and the command itself reports it.
	}
}

} // namespace

void PrepareLockFiles(const Services& services) {
	PrepareDirectory();
	for (const char* path : {dataupdate::kUpdateAnyLock, dataupdate::kFreshInfoLock, dataupdate::kConfigLock}) {
		Make(path);
	}
	for (const std::string& id : Ids(services)) {
		const std::string path = dataupdate::UpdateLockPath(id);
		std::error_code ignored; // Of a name with a slash; Make() tells.
		std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
		Make(path);
	}
}

} // namespace tarn::ctl
