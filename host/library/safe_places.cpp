#include "host/library/safe_places.h"

#include "base/volume_safety.h"
#include "host/library/failure.h"

#include <tarnsdk/volume.h>

#include <memory>
#include <optional>

namespace tarn::ctl {

namespace {

void Require(const std::optional<UnsafePlace>& unsafe) {
	if (unsafe) {
		throw CommandError(
		    kFailed, unsafe->path + " " + unsafe->reason +
		                 ", so nothing was changed: others could have files installed that nobody signed; "
		                 "it must be a directory of root that nobody else can write");
	}
}

} // namespace

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
