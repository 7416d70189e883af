#include "host/library/volume_content.h"

#include "base/text.h"
#include "dataupdate/installation.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "dataupdate/updater.h"
#include "dataupdate/utils.h"
#include "dataupdate/volume_handler.h"
#include "host/library/failure.h"
#include "host/library/inspection.h"
#include "host/library/preparation.h"
#include "host/library/volume_hook.h"

#include <syslog.h>

#include <algorithm>
#include <exception>

namespace tarn::ctl {

namespace fs = std::filesystem;

using dataupdate::InstalledRecord;
using dataupdate::MainDirPath;
using End = MoveOutcome::End;

namespace {

/** Every name below a directory, with its kind and, of a file, its size; nothing below what does not exist. */
using Content = dataupdate::FileList;

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
	InstalledRecord record = ReadInstalled(services, id);
	const std::string place = kMainDir + id + "/";
	dataupdate::FileList moved;
	for (std::size_t i = 0; i < record.files.Size(); ++i) {
		const std::string name(record.files.Name(i));
		const std::size_t at = StartsWith(name, "/") ? name.find(place) : std::string::npos;
		moved.Add(at == std::string::npos ? name : volume + name.substr(at), record.files.Text(i));
	}
	moved.Sort();
	if (moved != record.files) {
		record.files = std::move(moved);
		WriteInstalled(services, id, record);
	}
}

/** Takes marks away again. */
void Unmark(const std::vector<std::string>& ids) {
	for (const std::string& id : ids) {
		dataupdate::ClearReplacementMark(id);
	}
}

/**
 * Records name files by absolute paths as well: lets these lead to the volume, and keeps everything else. Returns the
 * databases whose records could not be put right, having told why.
 */
std::set<std::string> LetRecordsFollow(const Services& services, const std::string& volume) {
	return FailuresOf(services, services.config->GetDatabaseIDs(),
	    [&](const std::string& id) { LetRecordFollow(services, volume, id); });
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

/** What is found out before anything moves. */
struct Preparation {
	std::string target;
	std::optional<Content> before;
	bool target_is_free = false;
	std::vector<std::string> marked;
	std::optional<VolumeHook> hook;
	std::string obstacle; ///< Why nothing can be begun, other than that no volume is suitable.
};

/**
 * Marks the databases that are installed on a volume, which need not be in use any more, as ones whose files may not be
 * whole, so that the next update or fix installs them anew even if their version has not changed. Returns those that
 * were not marked before; throws UpdateError when not all can be marked, and none of these is then.
 */
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

/** No value when something cannot be examined. */
std::optional<Content> ContentBelow(const std::string& directory) {
	Content content;
	const std::size_t prefix = directory.size() + 1;
	const auto add = [&](const std::string& entry) {
		const fs::file_type type = fs::symlink_status(entry).type();
		const std::uintmax_t size = type == fs::file_type::regular ? fs::file_size(entry) : 0;
		content.Add(entry.substr(prefix), std::to_string(static_cast<int>(type)) + " " + std::to_string(size));
	};
	try {
		if (fs::exists(directory)) {
			// Not by the standard's iterator, which holds a descriptor for each level.
			dataupdate::IOUtils().IterateDirectory(directory, add, true);
		}
		content.Sort();
		return content;
	} catch (const std::exception&) { // the file system's, or the library's
		return std::nullopt;
	}
}

void Prepare(const Services& services, const std::string& volume, Preparation& preparation) {
	RequireSafeVolume(preparation.target);
	preparation.before = ContentBelow(MainDirPath(volume));
	const std::optional<Content> there = ContentBelow(MainDirPath(preparation.target));
	preparation.target_is_free = there && there->IsEmpty();
	preparation.marked = MarkInstalled(services);
}

/** The library's part. It gives the volume up, asks for another one, and logs the failures of its steps. */
class PreparingHandler : public dataupdate::VolumeHandler {
public:
	PreparingHandler(const Services& services, std::string volume, Preparation& preparation)
	    : VolumeHandler(services.config), services_(services), volume_(std::move(volume)), preparation_(preparation) {}

	std::string FindSuitableVolume(std::string exclude) const override {
		try {
			preparation_.target = VolumeHandler::FindSuitableVolume(std::move(exclude));
			Prepare(services_, volume_, preparation_);
			preparation_.hook.emplace(volume_, preparation_.target);
			preparation_.hook->ExecPre();
		} catch (const std::exception& error) {
			if (CategoryOf(error.what()) != Category::kNoSuitableVolume) {
				preparation_.obstacle = ExplainException(*services_.io).sentence;
			}
			throw;
		}
		return preparation_.target;
	}

private:
	const Services& services_;
	std::string volume_;
	Preparation& preparation_;
};

/** Everything is copied before anything is deleted, so one of the two is whole unless the file system fails. */
End Judge(const Services& services, const std::string& volume, const Preparation& preparation) {
	if (!services.config->GetCurVolume().empty()) {
		return End::kMoved;
	}
	const std::optional<Content>& before = preparation.before;
	if (!before) {
		return End::kDivided;
	}
	if (preparation.target_is_free && !before->IsEmpty() && ContentBelow(MainDirPath(preparation.target)) == before) {
		return End::kCopied;
	}
	return ContentBelow(MainDirPath(volume)) == before ? End::kStayed : End::kDivided;
}

void Settle(const Services& services, const Preparation& preparation) {
	// The originals are gone, so the copies must not be in memory alone.
	dataupdate::SyncFileSystem(MainDirPath(preparation.target));
	services.config->SetCurVolume(preparation.target);
	const std::set<std::string> failed = LetRecordsFollow(services, preparation.target);
	for (const std::string& id : preparation.marked) {
		if (failed.count(id) == 0) {
			Unmark({id});
		}
	}
}

void TakeBack(const Services& services, const Preparation& preparation) {
	Unmark(preparation.marked);
	if (!preparation.target_is_free) {
		return;
	}
	try {
		services.io->RmRf(MainDirPath(preparation.target));
	} catch (const dataupdate::UpdateError& error) {
		syslog(LOG_WARNING, "What was copied could not be removed: %s", error.what());
	}
}

} // namespace

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
	return names.empty() ? "" : "Not whole there, and to be installed anew by the next update: " + names + "\n";
}

MoveOutcome MoveAway(const Services& services, const std::string& volume) {
	Preparation preparation;
	PreparingHandler(services, volume, preparation).UnmountVolumeEvent(volume);
	if (!preparation.obstacle.empty()) {
		throw CommandError(
		    kFailed, "The databases stay on " + volume +
		                 ", and no volume is in use, for they could not be moved: " + preparation.obstacle);
	}
	if (preparation.target.empty()) {
		return {};
	}
	const End end = Judge(services, volume, preparation);
	if (end == End::kMoved || end == End::kCopied) {
		Settle(services, preparation);
		preparation.hook->ExecPost();
	} else if (end == End::kStayed) {
		TakeBack(services, preparation);
	}
	return {end, preparation.target};
}

} // namespace tarn::ctl
