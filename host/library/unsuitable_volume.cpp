#include "host/library/unsuitable_volume.h"

#include "base/text.h"
#include "host/library/preparation.h"

#include <tarnsdk/volume.h>

#include <sys/stat.h>

#include <cstdint>
#include <memory>

namespace tarn::ctl {

namespace {

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

bool IsMountPoint(const std::string& path) {
	struct stat own {};
	struct stat parent {};
	return stat(path.c_str(), &own) == 0 && stat((path + "/..").c_str(), &parent) == 0 && own.st_dev != parent.st_dev;
}

} // namespace

std::string WhyUnsuitable(const Services& services, const std::string& volume) {
	const auto record = std::make_unique<TARNMountVolInfo>();
	return TARNMountVolInfoGet(volume.c_str(), record.get()) == 0 ? Why(services, *record) : WhyNoVolume(volume);
}

std::string WhyNoOther(const Services& services, const std::string& exclude) {
	const std::unique_ptr<TARNMountVolInfo, decltype(&TARNMountVolInfoFree)> list(
	    TARNMountVolAllEnum(0, 1, 0), &TARNMountVolInfoFree);
	std::string reasons;
	bool is_any = false;
	for (const TARNMountVolInfo* record = list.get(); record != nullptr; record = record->next) {
		const std::string path = record->mount_path;
		is_any = is_any || path != exclude;
		if (path != exclude && VolumeProblem(path).empty()) {
			reasons += (reasons.empty() ? "" : ", ") + path + " is not suitable: " + Why(services, *record);
		}
	}
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
