#include "host/library/update_plan.h"

#include "dataupdate/installation.h"
#include "dataupdate/paths.h"
#include "host/library/install_place.h"
#include "host/library/operation.h"
#include "host/library/rejection.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <sstream>

namespace tarn::ctl {

namespace {

// As the library keeps free.
constexpr std::uint64_t kReservedShare = 20;

/** As the system's list of locks names it; empty for a missing file. */
std::string NameInList(const std::string& path) {
	struct stat status {};
	std::array<char, 64> name{};
	if (stat(path.c_str(), &status) != 0) {
		return "";
	}
	const int length = std::snprintf(name.data(), name.size(), "%02x:%02x:%ju", major(status.st_dev),
	    minor(status.st_dev), static_cast<std::uintmax_t>(status.st_ino));
	return {name.data(), static_cast<std::size_t>(length)};
}

/**
 * How many processes read the database, told by the system's list of locks, so that nobody is disturbed: trying the
 * lock would hold off a reader for a moment. Processes of other namespaces are not told.
 */
std::size_t CountReaders(const std::string& id) {
	const std::string file = NameInList(dataupdate::UsingLockPath(id));
	if (file.empty()) {
		return 0;
	}
	std::ifstream list("/proc/locks");
	return ReadersIn({std::istreambuf_iterator<char>(list), std::istreambuf_iterator<char>()}, file).size();
}

/** The hold's, the versions' and the schedule's part of the answer; false when nothing would be installed. */
bool IsNeeded(UpdatePlan& plan) {
	const Situation& found = plan.found;
	const int before = found.is_unfinished ? -1 : found.installed;
	if (found.offered == before) {
		plan.reason = "it is up to date";
	} else if (found.offered < before) {
		plan.reason = "the installed version is above the offered one";
	} else if (plan.hold && !plan.hold->Allows(found.offered)) {
		plan.reason = plan.hold->problem.empty() ? "it is " + DescribeHold(*plan.hold)
		                                         : "its hold cannot be understood (" + plan.hold->problem + ")";
	} else {
		return true;
	}
	return false;
}

/** No value for a file system that does not answer. */
std::optional<std::uint64_t> FreeOn(const Services& services, const std::string& path) {
	try {
		const auto [free, capacity] = services.io->GetFsSize(path);
		const std::uint64_t reserve = capacity / kReservedShare;
		return free - std::min<std::uint64_t>(free, reserve);
	} catch (const std::exception&) {
		return std::nullopt;
	}
}

/** Packages and new files lie on the volume first, and end on the database's own file system. */
std::optional<std::uint64_t> FreeFor(const Services& services, const std::string& id) {
	const std::string volume = services.config->GetCurVolume();
	const std::string root = services.config->GetDatabaseConfig(id)->GetRootDirectory();
	if (volume.empty() || root.empty()) {
		return std::nullopt;
	}
	const std::optional<std::uint64_t> on_volume = FreeOn(services, volume);
	const std::optional<std::uint64_t> on_root = FreeOn(services, root);
	return on_volume && on_root ? std::optional(std::min(*on_volume, *on_root)) : std::nullopt;
}

/** A new tree as large as the installed one, or as its package; what is unpacked for the first time is unknown. */
std::optional<std::uint64_t> MostBytes(const Services& services, const UpdatePlan& plan) {
	if (!plan.way.bytes || plan.found.installed < 0) {
		return std::nullopt;
	}
	const auto config = services.config->GetDatabaseConfig(plan.id);
	const std::optional<std::uintmax_t> installed = InstalledBytes(services, plan.id, config->GetInstallPrefix());
	return installed ? std::optional(*plan.way.bytes + std::max<std::uint64_t>(*installed, *plan.way.bytes))
	                 : std::nullopt;
}

/** Takes the same decisions as a scheduled update, which asks for them one after the other. */
std::string Obstacle(const Services& services, const UpdatePlan& plan) {
	if (!services.config->GetDatabaseConfig(plan.id)->GetScheduled()) {
		return "the database is not scheduled";
	}
	if (const std::optional<Rejection> rejection = ReadRejection(plan.id);
	    rejection && rejection->version == plan.found.offered) {
		return "a check of this machine refused version " + std::to_string(plan.found.offered);
	}
	const Budget budget = services.scheduled_budget ? services.scheduled_budget() : Budget();
	try {
		if (plan.way.is_chain) {
			RequireChainWithin(budget, plan.way);
		} else {
			RequireFullPackageWithin(budget, 0, [&] { return plan.way.bytes; });
		}
	} catch (const Refusal& refusal) {
		return refusal.what();
	}
	return services.config->GetCurVolume().empty() ? "there is no storage volume" : "";
}

void PlanWay(const Services& services, const dataupdate::RemoteInfo& remote, UpdatePlan& plan) {
	plan.way = FindWay(plan.found, services.info->GetDiffInfos(plan.id));
	if (plan.old_place && !plan.finishes) {
		plan.way.reason = DescribeOldPlace(services, plan.id, *plan.old_place);
	}
	plan.reason = plan.way.is_chain ? "diff packages lead from version " + std::to_string(plan.found.installed) +
	                                      " to " + std::to_string(plan.found.offered)
	                                : plan.way.reason;
	if (!plan.way.is_chain && services.package_size) {
		plan.way.bytes = services.package_size(remote.download_link);
	}
	plan.most_bytes = MostBytes(services, plan);
	plan.free_bytes = FreeFor(services, plan.id);
	plan.room = JudgeRoom(plan.way.bytes, plan.most_bytes, plan.free_bytes);
	plan.obstacle = Obstacle(services, plan);
}

} // namespace

UpdatePlan MakeUpdatePlan(const Services& services, const std::string& id) {
	UpdatePlan plan;
	plan.id = id;
	const dataupdate::InstalledRecord recorded = ReadRecorded(services, id);
	plan.old_place = FindOldPlace(services, id, recorded);
	plan.from = plan.old_place ? -1 : recorded.data_version;
	plan.is_unfinished = dataupdate::IsReplacementMarked(id);
	plan.finishes = FindPrepared(services, id);
	plan.found.installed = plan.finishes.value_or(plan.from);
	plan.found.is_unfinished = plan.is_unfinished && !plan.finishes;
	plan.hold = ReadHold(id);
	plan.readers = CountReaders(id);
	plan.is_updating = services.checker->IsUpdating(id);
	const dataupdate::RemoteInfo remote = services.info->GetRemoteInfo(id);
	plan.found.offered = remote.data_version;
	plan.is_needed = IsNeeded(plan);
	if (plan.is_needed) {
		PlanWay(services, remote, plan);
	}
	if (plan.finishes) {
		plan.reason =
		    "a killed replacement by version " + std::to_string(*plan.finishes) + " is finished; then " + plan.reason;
	}
	return plan;
}

Room JudgeRoom(const std::optional<std::uint64_t>& packages, const std::optional<std::uint64_t>& most_bytes,
    const std::optional<std::uint64_t>& free_bytes) {
	if (!packages || !free_bytes) {
		return Room::kUnknown;
	}
	if (*packages > *free_bytes) {
		return Room::kTooLittle;
	}
	if (!most_bytes) {
		return Room::kUnknown;
	}
	return *most_bytes > *free_bytes ? Room::kPerhaps : Room::kEnough;
}

std::vector<pid_t> ReadersIn(const std::string& locks, const std::string& file) {
	std::vector<pid_t> readers;
	std::istringstream lines(locks);
	for (std::string line; std::getline(lines, line);) {
		// "7: FLOCK  ADVISORY  READ 4242 00:1b:4711 0 EOF"; who waits has "->" in the second place.
		std::istringstream words(line);
		std::string ignored;
		std::string kind;
		std::string access;
		std::string place;
		pid_t process = 0;
		if (words >> ignored >> kind >> ignored >> access >> process >> place && kind == "FLOCK" && access == "READ" &&
		    place == file) {
			readers.push_back(process);
		}
	}
	return readers;
}

} // namespace tarn::ctl
