#include "host/library/preparation.h"

#include "base/text.h"
#include "base/unique_fd.h"
#include "base/volume_safety.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/installation.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "host/library/failure.h"

#include <tarnsdk/volume.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace tarn::ctl {

namespace {

constexpr mode_t kPrivate = 0600;
constexpr mode_t kOpenToReaders = 0755;
constexpr mode_t kPermissions = 07777;

[[noreturn]] void RefusePlace(const std::string& path, const std::string& reason) {
	throw CommandError(kFailed, path + " " + reason +
	                                ", so others could hold off all updates; see who made it, remove it and run "
	                                "\"tarndbudctl init\"");
}

[[noreturn]] void FailToMake(const std::string& path) {
	throw CommandError(kFailed, "The lock file " + path + " cannot be made (" + std::strerror(errno) + ")");
}

void Make(const std::string& path) {
	const UniqueFd file(
	    open(path.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kPrivate)); // A FIFO would block.
	if (!file && errno == ELOOP) {
		RefusePlace(path, "is a link");
	}
	struct stat status {};
	if (!file || fstat(file.Get(), &status) != 0) {
		FailToMake(path);
	}
	const bool is_own = status.st_uid == 0 || status.st_uid == geteuid();
	if (!S_ISREG(status.st_mode) || !is_own) {
		RefusePlace(path, "is no file of root's");
	}
	if ((status.st_mode & kPermissions) != kPrivate && fchmod(file.Get(), kPrivate) != 0) {
		FailToMake(path);
	}
}

/** Readers have to reach their lock files, whatever mask the directory was made under. */
void PrepareDirectory() {
	if (const std::optional<UnsafePlace> unsafe = FindUnsafePlace(dataupdate::kLockDirectory)) {
		RefusePlace(unsafe->path, unsafe->reason);
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

void Require(const std::optional<UnsafePlace>& unsafe) {
	if (unsafe) {
		throw CommandError(
		    kFailed, unsafe->path + " " + unsafe->reason +
		                 ", so nothing was changed: others could have files installed that nobody signed; "
		                 "it must be a directory of root that nobody else can write");
	}
}

/** As the library adds it up. */
std::uint64_t TotalReserve(const Services& services) {
	std::uint64_t total = 0;
	for (const std::string& id : services.config->GetDatabaseIDs()) {
		total += services.config->GetDatabaseConfig(id)->GetMinReservedSpaceInbytes();
	}
	return total;
}

std::string Why(const Services& services, const TARNMountVolInfo& record) {
	if (TARNVolumeServicePolicy(&record) == 0) {
		return "an \"exclude\" line of /usr/tarn/etc/volumes.conf names it";
	}
	if (record.healthy == 0) {
		return "its file system does not answer";
	}
	if (record.writable == 0) {
		return "it is read-only";
	}
	if (const std::uint64_t reserve = TotalReserve(services); record.free_bytes < reserve) {
		return HumanSize(record.free_bytes) + " are free there, and the databases reserve " + HumanSize(reserve);
	}
	return "the system log tells why";
}

void ForEachVolumeBut(const std::string& exclude, const std::function<void(const TARNMountVolInfo& volume)>& visit) {
	const std::unique_ptr<TARNMountVolInfo, decltype(&TARNMountVolInfoFree)> list(
	    TARNMountVolAllEnum(0, 1, 0), &TARNMountVolInfoFree);
	for (const TARNMountVolInfo* volume = list.get(); volume != nullptr; volume = volume->next) {
		if (volume->mount_path != exclude) {
			visit(*volume);
		}
	}
}

bool IsMountPoint(const std::string& path) {
	struct stat own {};
	struct stat parent {};
	return stat(path.c_str(), &own) == 0 && stat((path + "/..").c_str(), &parent) == 0 && own.st_dev != parent.st_dev;
}

bool IsAnyPrepared(const Services& services) {
	const std::vector<std::string> ids = services.config->GetDatabaseIDs();
	return std::any_of(
	    ids.begin(), ids.end(), [&](const std::string& id) { return FindPreparedEvenHeld(services, id).has_value(); });
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

std::string VolumeProblem(const std::string& volume) {
	const std::optional<UnsafePlace> unsafe = FindUnsafePlaceOnVolume(volume);
	return unsafe ? unsafe->path + " " + unsafe->reason : "";
}

void RequireSafeVolume(const std::string& volume) {
	Require(FindUnsafePlaceOnVolume(volume));
}

void RequireSafePlaces(const Services& services, const std::string& id) {
	if (const std::string volume = services.config->GetCurVolume(); !volume.empty()) {
		RequireSafeVolume(volume);
	}
	Require(FindUnsafePlace(services.config->GetDatabaseConfig(id)->GetInstallPrefix()));
}

std::optional<int> FindPreparedEvenHeld(const Services& services, const std::string& id) {
	if (!services.find_prepared) {
		return std::nullopt;
	}
	return services.find_prepared(
	    id, services.config->GetCurVolume(), services.config->GetDatabaseConfig(id)->GetInstallPrefix());
}

void ClearTemporaryArea(const Services& services) {
	try {
		const dataupdate::FileLock still(dataupdate::kUpdateAnyLock, 0); // None is unmounted meanwhile, either.
		const std::string volume = services.config->GetCurVolume();
		if (volume.empty() || !services.is_available(volume) || !VolumeProblem(volume).empty()) {
			return;
		}
		if (!IsAnyPrepared(services)) {
			services.io->RmRf(dataupdate::TempDirPath(volume));
		}
	} catch (const dataupdate::UpdateError& error) {
		syslog(LOG_INFO, "The temporary area was not cleared: %s", error.what());
	}
}

void RequireVolume(const Services& services) {
	if (services.config->GetCurVolume().empty()) {
		throw CommandError(
		    kFailed, "There is no storage volume, so nothing was changed; mount one and run \"tarndbudctl init\"");
	}
	RequireNoLostVolume(services);
}

void RequireVolumeFor(const Services& services, const std::string& id) {
	RequireVolume(services);
	RequireSafePlaces(services, id);
}

void RequireNoLostVolume(const Services& services) {
	const std::string volume = services.config->GetCurVolume();
	if (!volume.empty() && !services.is_available(volume)) {
		throw CommandError(kFailed, "The volume " + volume +
		                                " is in use, but is not available, so nothing was changed; mount it, or list "
		                                "it in /usr/tarn/etc/volumes.conf");
	}
}

std::string UnsafeVolumes(const std::string& exclude) {
	std::string problems;
	ForEachVolumeBut(exclude, [&](const TARNMountVolInfo& volume) {
		const std::string problem = VolumeProblem(volume.mount_path);
		problems += (problems.empty() || problem.empty() ? "" : ", ") + problem;
	});
	return problems;
}

std::string WhyUnsuitable(const Services& services, const std::string& volume) {
	const auto record = std::make_unique<TARNMountVolInfo>();
	return TARNMountVolInfoGet(volume.c_str(), record.get()) == 0 ? Why(services, *record) : WhyNoVolume(volume);
}

std::string WhyNoOther(const Services& services, const std::string& exclude) {
	std::string reasons;
	bool is_any = false;
	ForEachVolumeBut(exclude, [&](const TARNMountVolInfo& volume) {
		is_any = true;
		if (const std::string path = volume.mount_path; VolumeProblem(path).empty()) {
			reasons += (reasons.empty() ? "" : ", ") + path + " is not suitable: " + Why(services, volume);
		}
	});
	return is_any
	           ? reasons
	           : "There is no other volume; a tmpfs or a network file system counts only when a \"directory\" line of "
	             "/usr/tarn/etc/volumes.conf names it";
}

std::string WhyNoVolume(const std::string& path) {
	return IsMountPoint(path)
	           ? "it is mounted, but no \"pattern\" of /usr/tarn/etc/volumes.conf matches it, or its file system does "
	             "not count, such as a tmpfs or a network file system; the line \"directory " +
	                 path + "\" there takes it all the same"
	           : "it is not mounted, or not listed in /usr/tarn/etc/volumes.conf";
}

} // namespace tarn::ctl
