#include "host/library/preparation.h"

#include "base/unique_fd.h"
#include "base/volume_safety.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "host/library/budget.h"
#include "host/library/failure.h"

#include <tarnsdk/volume.h>

#include <json/value.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace tarn::ctl {

using dataupdate::UpdateError;

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

bool IsOwn(const struct stat& status) {
	return status.st_uid == 0 || status.st_uid == geteuid();
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
	if (!S_ISREG(status.st_mode) || !IsOwn(status)) {
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

struct Kind {
	const char* name;
	bool (*is)(const Json::Value& value);
};

using Kinds = std::map<std::string, Kind>;

constexpr Kind kString = {"a string in quotation marks", [](const Json::Value& value) { return value.isString(); }};
constexpr Kind kBoolean = {
    "true or false, without quotation marks", [](const Json::Value& value) { return value.isBool(); }};
constexpr Kind kNumber = {
    "a whole number from 0 to 4294967295", [](const Json::Value& value) { return value.isUInt(); }};
constexpr Kind kFullPackageRule = {R"("always", "diffs only" or a number of bytes such as "200M", in quotation marks)",
    [](const Json::Value& value) { return value.isString() && IsFullPackageRule(value.asString()); }};

Kinds ServiceKinds() {
	return {{"cur_volume", kString}, {"db_netloc", kString}, {"db_ver", kString}, {"digest_threads", kNumber},
	    {"download_scheme", kString}, {"scheduled_full_packages", kFullPackageRule}};
}

Kinds DatabaseKinds() {
	return {{"auto_update", kBoolean}, {"format_version", kString}, {"install_dest", kString},
	    {"min_rsv_space_inbytes", kNumber}};
}

std::vector<std::string> Names(const Kinds& kinds) {
	std::vector<std::string> names;
	for (const auto& [name, kind] : kinds) {
		names.push_back(name);
	}
	return names;
}

[[noreturn]] void RefuseSettings(const std::string& path, const std::string& reason) {
	throw CommandError(
	    kFailed, "The settings in " + path + " cannot be used: " + reason + "; correct or remove that file");
}

/** No value when there is no such file. */
std::optional<Json::Value> Decode(const dataupdate::IOUtils& io, const std::string& path) {
	try {
		return io.ReadJson(path);
	} catch (const UpdateError& error) {
		if (error.code() == UpdateError::kFileNotExist) {
			return std::nullopt;
		}
		RefuseSettings(path, "it is no JSON, or cannot be read");
	}
}

void RequireKind(const std::string& path, const std::string& section, const std::string& key, const Kind& kind,
    const Json::Value& value) {
	if (!value.isNull() && !kind.is(value)) {
		RefuseSettings(path, "'" + key + "' of '" + section + "' must be " + kind.name);
	}
}

void RequireKinds(const std::string& path, const std::string& section, const Json::Value& values, const Kinds& kinds) {
	if (!values.isObject()) {
		RefuseSettings(path, "'" + section + "' must be an object");
	}
	for (const auto& [key, kind] : kinds) {
		RequireKind(path, section, key, kind, values[key]);
	}
}

/**
 * Whoever sets a value writes all others too, and the library's writer replaces bytes that are no UTF-8, and cuts names
 * at a zero byte.
 */
bool CanBeWritten(const Json::Value& value) {
	const UniqueFd file(memfd_create("settings", MFD_CLOEXEC));
	const std::string path = "/proc/self/fd/" + std::to_string(file.Get());
	const dataupdate::IOUtils io;
	io.WriteJson(path, value);
	return io.ReadJson(path) == value;
}

void RequireUsable(const dataupdate::IOUtils& io, const std::string& path, const Kinds& kinds) {
	const std::optional<Json::Value> decoded = Decode(io, path);
	if (!decoded) {
		return;
	}
	const Json::Value& root = *decoded;
	if (!root.isObject()) {
		RefuseSettings(path, "it must hold an object");
	}
	for (const std::string& section : root.getMemberNames()) {
		RequireKinds(path, section, root[section], kinds);
	}
	if (!CanBeWritten(root)) {
		RefuseSettings(path, "it holds text that is no UTF-8, or a name with a zero byte");
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

void RequireUsableSettings(const dataupdate::IOUtils& io) {
	RequireUsable(io, dataupdate::kServiceOverride, ServiceKinds());
	RequireUsable(io, dataupdate::kDatabaseOverride, DatabaseKinds());
}

std::vector<std::string> ServiceSettings() {
	return Names(ServiceKinds());
}

std::vector<std::string> DatabaseSettings() {
	return Names(DatabaseKinds());
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
	const std::unique_ptr<TARNMountVolInfo, decltype(&TARNMountVolInfoFree)> list(
	    TARNMountVolAllEnum(0, 1, 0), &TARNMountVolInfoFree);
	std::string problems;
	for (const TARNMountVolInfo* record = list.get(); record != nullptr; record = record->next) {
		if (const std::string problem = VolumeProblem(record->mount_path);
		    !problem.empty() && record->mount_path != exclude) {
			problems += (problems.empty() ? "" : ", ") + problem;
		}
	}
	return problems;
}

} // namespace tarn::ctl
