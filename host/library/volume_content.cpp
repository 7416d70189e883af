#include "host/library/volume_content.h"

#include "base/text.h"
#include "dataupdate/installation.h"
#include "dataupdate/update_error.h"
#include "dataupdate/updater.h"
#include "host/library/failure.h"
#include "host/library/inspection.h"
#include "host/library/install_place.h"
#include "host/library/listed_files.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <utility>

namespace tarn::ctl {

namespace fs = std::filesystem;

using dataupdate::InstalledRecord;

namespace {

constexpr char kMainDir[] = "/@database/autoupdate/";

/** One whose configuration cannot be read has no files that could be found. */
bool LiesOnVolumes(const Services& services, const std::string& id) {
	try {
		return services.config->GetDatabaseConfig(id)->GetRootDirectory() != "/";
	} catch (const dataupdate::UpdateError&) {
		return false;
	}
}

/**
 * Whether the files are there. A record of all files tells it whether or not marks stand; without one, a forced version
 * has no recorded files, and there must be any at all.
 */
bool IsThere(const std::string& id, const InstalledRecord& listed, const std::string& install_prefix) {
	std::error_code error;
	if (fs::is_empty(install_prefix, error) || error ||
	    !dataupdate::CheckListing(dataupdate::ListingOf(listed.files), install_prefix)) {
		return false;
	}
	const std::optional<InstalledFiles> record = ReadInstalledFiles(id);
	return !record || !Agree(*record, listed, install_prefix) || FindBadFiles(*record, listed, install_prefix).empty();
}

/** Does something for each database; returns those for which it failed, having told why. */
std::set<std::string> FailuresOf(const Services& services, const std::vector<std::string>& ids,
    const std::function<void(const std::string& id)>& operation) {
	std::set<std::string> failed;
	// The failures are the answer.
	[[maybe_unused]] const ExitCode ignored = ForEachDatabase(
	    services, ids,
	    [&](const std::string& id) {
		    operation(id);
		    return kDone;
	    },
	    [&](const std::string& id, const Failure& /*failure*/) { failed.insert(id); });
	return failed;
}

std::vector<std::string> InstalledOnVolumes(const Services& services) {
	std::vector<std::string> installed;
	for (const std::string& id : services.config->GetDatabaseIDs()) {
		if (LiesOnVolumes(services, id) && IsInstalled(services, id)) {
			installed.push_back(id);
		}
	}
	return installed;
}

void LetRecordFollow(const Services& services, const std::string& volume, const std::string& id) {
	InstalledRecord record = ReadRecorded(services, id);
	const std::string place = kMainDir + id + "/";
	const auto move = [&](const std::string& name) {
		const std::size_t at = StartsWith(name, "/") ? name.find(place) : std::string::npos;
		return at == std::string::npos ? name : volume + name.substr(at);
	};
	MoveInstallPlace(id, [&](const std::string& directory) {
		const std::string moved = move(directory + "/");
		return moved.substr(0, moved.size() - 1);
	});
	dataupdate::FileList moved;
	for (std::size_t i = 0; i < record.files.Size(); ++i) {
		moved.Add(move(std::string(record.files.Name(i))), record.files.Text(i));
	}
	moved.Sort();
	if (moved != record.files) {
		record.files = std::move(moved);
		WriteInstalled(services, id, record);
	}
}

/** Takes those of the marks away that are not needed; returns the databases that are not whole. */
std::vector<std::string> TakeOver(
    const Services& services, const std::string& volume, const std::vector<std::string>& marked) {
	const std::set<std::string> unknown = LetRecordsFollow(services, volume);
	std::vector<std::string> incomplete;
	const auto settle = [&](const std::string& id) {
		const std::string prefix = services.config->GetDatabaseConfig(id)->GetInstallPrefix();
		if (unknown.count(id) != 0 || !IsThere(id, ReadInstalled(services, id), prefix)) {
			dataupdate::MarkUnfinished(id); // Set long ago, unless it was installed meanwhile.
			incomplete.push_back(id);
		} else if (std::find(marked.begin(), marked.end(), id) != marked.end()) {
			Unmark({id});
		}
	};
	const std::set<std::string> failed = FailuresOf(services, InstalledOnVolumes(services), settle);
	incomplete.insert(incomplete.end(), failed.begin(), failed.end());
	return incomplete;
}

} // namespace

std::vector<std::string> MarkInstalled(const Services& services) {
	std::vector<std::string> marked;
	try {
		for (const std::string& id : InstalledOnVolumes(services)) {
			if (dataupdate::MarkUnfinished(id)) {
				marked.push_back(id);
			}
		}
	} catch (...) {
		Unmark(marked);
		throw;
	}
	return marked;
}

void Unmark(const std::vector<std::string>& ids) {
	for (const std::string& id : ids) {
		dataupdate::ClearReplacementMark(id);
	}
}

std::set<std::string> LetRecordsFollow(const Services& services, const std::string& volume) {
	return FailuresOf(services, services.config->GetDatabaseIDs(),
	    [&](const std::string& id) { LetRecordFollow(services, volume, id); });
}

std::string Adopt(const Services& services, const std::function<void()>& choose, Json::Value& answer) {
	const std::vector<std::string> marked = MarkInstalled(services);
	const auto none_is_in_use = [&] { return services.config->GetCurVolume().empty(); };
	try {
		choose();
	} catch (...) {
		if (none_is_in_use()) {
			Unmark(marked);
		}
		throw;
	}
	if (none_is_in_use()) {
		Unmark(marked);
		return "";
	}
	answer["incomplete"] = Json::Value(Json::arrayValue);
	std::string names;
	for (const std::string& id : TakeOver(services, services.config->GetCurVolume(), marked)) {
		answer["incomplete"].append(id);
		names += (names.empty() ? "" : ", ") + id;
	}
	return names.empty() ? "" : "Not whole there, and to be installed again by the next update: " + names + "\n";
}

} // namespace tarn::ctl
