#include "dataupdate/updater.h"

#include "dataupdate/hook.h"
#include "dataupdate/installation.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/digests_ahead.h"
#include "dataupdate/internal/early_digests.h"
#include "dataupdate/internal/file_copy.h"
#include "dataupdate/internal/log.h"
#include "dataupdate/internal/patch_description.h"
#include "dataupdate/internal/planned_strategy.h"
#include "dataupdate/internal/replacement_plan.h"
#include "dataupdate/internal/validation.h"
#include "dataupdate/strategy.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"

#include <future>
#include <memory>
#include <utility>

namespace tarn::dataupdate {

namespace {

constexpr char kLogSource[] = "updater.cpp";

FileListing ListingOf(const std::map<std::string, FileStatus>& statuses) {
	const auto entries = std::make_shared<std::vector<const std::pair<const std::string, FileStatus>*>>();
	entries->reserve(statuses.size());
	for (const auto& entry : statuses) {
		entries->push_back(&entry);
	}
	return {entries->size(), [entries](std::size_t at) { return (*entries)[at]->first; },
	    [entries](std::size_t at) { return (*entries)[at]->second.sha384_digest; }};
}

/** Logs each file that is not as recorded, in order, and hands its name to a function until that returns false. */
void ForEachBad(
    const FileListing& files, const std::string& root, const std::function<bool(const std::string& name)>& visit) {
	DigestsAhead digests(files.count, [&](std::size_t at) { return JoinPath(root, files.name_of(at)); });
	for (std::size_t at = 0; at < files.count; ++at) {
		const std::optional<std::string> digest = digests.Next();
		if (digest == files.digest_of(at)) {
			continue;
		}
		const std::string name = files.name_of(at);
		if (digest) {
			TARN_LOG(LOG_ERR, "File %s digest check fail", JoinPath(root, name).c_str());
		} else {
			TARN_LOG(LOG_ERR, "File %s is gone", JoinPath(root, name).c_str());
		}
		if (!visit(name)) {
			return;
		}
	}
}

/** A strategy that is prepared, and what it changes, which is listed when it is needed. */
struct Prepared {
	std::shared_ptr<BaseStrategy> strategy;
	std::function<FileList()> list_files;
	PreparedUpdate content;
	std::shared_ptr<EarlyDigests> digests = std::make_shared<EarlyDigests>(); // of some of these files
};

template<typename Strategy>
Prepared Prepare(const std::shared_ptr<Strategy>& strategy) {
	strategy->PrepareUpdate();
	return {strategy, [own = strategy.get()] { return own->ListModifiedFiles(); }, {}};
}

/** Does the same for a new version, which hooks may check. */
template<typename Strategy>
Prepared PrepareNew(const std::shared_ptr<Strategy>& strategy) {
	Prepared prepared = Prepare(strategy);
	prepared.content = {strategy->PreparedTree(),
	    [own = strategy.get()](const VisitFile& visit) { own->VisitPrepared(visit); },
	    [own = strategy.get()] { return own->IsInstallable(); }};
	prepared.digests = strategy->DigestsBegun();
	return prepared;
}

void InstallBetweenHooks(const std::string& id, const Prepared& prepared, const std::function<void()>& announce) {
	UpdateHook hook(prepared.list_files(), id);
	InterruptionPoint(); // Better now than between the hooks.
	hook.ExecPre();
	announce();
	prepared.strategy->ApplyUpdate();
	// What has changed is described to the end: the caller could not tell an end here from one before the change.
	const InterruptionShield shield;
	hook.ExecPost();
}

/** Digests of files, of which some may be known. The list is given up. */
FileList CalculateDigests(FileList files, const std::string& root, EarlyDigests& early) {
	std::map<std::size_t, std::string> known;
	for (std::size_t at = 0; at < files.Size(); ++at) {
		if (std::optional<std::string> digest = early.Take(JoinPath(root, std::string(files.Name(at))))) {
			known[at] = *std::move(digest);
		}
	}
	DigestsAhead digests(files.Size(), [&](std::size_t at) {
		return known.count(at) > 0 ? "" : JoinPath(root, std::string(files.Name(at))); // Nothing is there.
	});
	FileList result;
	for (std::size_t at = 0; at < files.Size(); ++at) {
		const std::string digest = digests.Next().value_or("");
		const auto taken = known.find(at);
		result.Add(files.Name(at), taken == known.end() ? digest : taken->second);
		files.FreeBefore(at); // The threads are ahead.
	}
	return result;
}

/**
 * A later run finishes a replacement that failed, from what was prepared, unless the disk did not take that: the system
 * tells so once, and reads afterwards as if all had been written.
 */
void KeepPlanIfOnDisk(const std::string& id, const std::string& install_prefix) noexcept {
	try {
		if (MayBeAMixture(id)) {
			SyncFileSystem(install_prefix);
		}
	} catch (const std::exception&) {
		RemovePlan(id);
	}
}

/** Installs what was prepared, and removes the temporary data; returns what was changed, with the new digests. */
FileList Install(const std::string& id, Prepared prepared, const std::string& install_prefix,
    const std::function<void()>& announce) {
	try {
		InstallBetweenHooks(id, prepared, announce);
	} catch (...) {
		KeepPlanIfOnDisk(id, install_prefix);
		throw;
	}
	const InterruptionShield shield;
	FileList files = prepared.list_files();
	std::future<void> synced = BeginToSyncInstalled(install_prefix);
	prepared.strategy.reset(); // with its temporary data
	files = CalculateDigests(std::move(files), install_prefix, *prepared.digests);
	try {
		synced.get();
	} catch (...) {
		RemovePlan(id); // As KeepPlanIfOnDisk() does.
		throw;
	}
	return files;
}

} // namespace

FileListing ListingOf(const FileList& files) {
	return {files.Size(), [&files](std::size_t at) { return std::string(files.Name(at)); },
	    [&files](std::size_t at) { return files.Text(at); }};
}

bool CheckListing(const FileListing& files, const std::string& root) {
	bool is_good = true;
	ForEachBad(files, root, [&](const std::string& /*name*/) { return is_good = false; });
	return is_good;
}

bool CheckStatus(const std::map<std::string, FileStatus>& statuses, const std::string& root) {
	return CheckListing(ListingOf(statuses), root);
}

std::vector<std::string> FindBadIn(const FileListing& files, const std::string& root) {
	std::vector<std::string> bad;
	ForEachBad(files, root, [&](const std::string& name) {
		bad.push_back(name);
		return true;
	});
	return bad;
}

std::vector<std::string> FindBadFiles(const std::map<std::string, FileStatus>& statuses, const std::string& root) {
	return FindBadIn(ListingOf(statuses), root);
}

// By value, as the interface has it. NOLINTNEXTLINE(performance-unnecessary-value-param)
std::map<std::string, FileStatus> CalculateStatus(std::set<std::string> files, const std::string& root) {
	FileList list;
	for (const std::string& name : files) {
		list.Add(name);
	}
	return FileList::TakeStatuses(CalculateDigests(std::move(list), root));
}

// The list is given up. NOLINTNEXTLINE(performance-unnecessary-value-param)
FileList CalculateDigests(FileList files, const std::string& root) {
	EarlyDigests none;
	return CalculateDigests(std::move(files), root, none);
}

Updater::~Updater() = default;

DatabaseStatus Updater::Update(const std::string& id, const DatabaseStatus& status, const RemoteInfo& remote,
    const std::map<int, DiffInfo>& diffs, const std::string& volume, const std::string& installPrefix,
    const std::string& rootDirectory) const {
	UpdateResult result = UpdateAndTell(id, status, remote, diffs, volume, installPrefix, rootDirectory);
	return InstalledRecord::TakeStatus({result.data_version, result.last_fetch_time, std::move(result.files)});
}

UpdateResult Updater::UpdateAndTell(const std::string& id, const DatabaseStatus& status, const RemoteInfo& remote,
    const std::map<int, DiffInfo>& diffs, const std::string& volume, const std::string& installPrefix,
    const std::string& rootDirectory, const UpdateAdvice& advice) const {
	TARN_LOG(LOG_NOTICE, "Prepare diff update: %s", id.c_str());
	Prepared prepared;
	bool is_full = false;
	try {
		const auto diff =
		    std::make_shared<DiffStrategy>(id, status, remote, diffs, volume, installPrefix, rootDirectory);
		diff->TakeDigestsFrom(advice.known_digest);
		prepared = PrepareNew(diff);
	} catch (const UpdateError& error) {
		TARN_LOG(LOG_WARNING, "Diff update fail, try full update: %s", error.what());
		if (advice.before_full_package) {
			advice.before_full_package();
		}
		TARN_LOG(LOG_NOTICE, "Prepare full update: %s", id.c_str());
		prepared = PrepareNew(std::make_shared<FullStrategy>(id, remote, volume, installPrefix, rootDirectory));
		is_full = true;
	}
	Validate({id, advice.installed_version.value_or(status.data_version), remote.data_version, volume, installPrefix},
	    prepared.content);
	const auto announce = [&id] { TARN_LOG(LOG_NOTICE, "Apply update: %s", id.c_str()); };
	return {remote.data_version, remote.last_fetch_time, Install(id, std::move(prepared), installPrefix, announce),
	    is_full};
}

std::optional<int> FindPreparedReplacement(
    const std::string& id, const std::string& volume, const std::string& install_prefix) {
	const std::optional<ReplacementPlan> plan = FindWholePlan(id, volume, install_prefix);
	return plan ? std::optional(plan->version.data_version) : std::nullopt;
}

std::optional<int> FindUnfinishedVersion(const std::string& id) {
	return MayBeAMixture(id) ? ReadPlannedVersion(id) : std::nullopt;
}

UpdateResult FinishReplacement(const std::string& id, const std::string& volume, const std::string& install_prefix) {
	std::optional<ReplacementPlan> plan = FindWholePlan(id, volume, install_prefix);
	if (!plan) {
		throw UpdateError("What was prepared for " + id + " is no longer whole");
	}
	const PlannedVersion version = plan->version;
	Prepared prepared = Prepare(std::make_shared<PlannedStrategy>(id, *std::move(plan)));
	const auto announce = [&] {
		TARN_LOG(LOG_NOTICE, "Finish the replacement of %s by version %d", id.c_str(), version.data_version);
	};
	return {version.data_version, version.last_fetch_time, Install(id, std::move(prepared), install_prefix, announce),
	    version.is_full};
}

Fixer::Fixer(const std::string& id, const RemoteInfo& remote, const std::string& volume,
    const std::string& installPrefix, const std::string& rootDirectory)
    : id_(id), remote_(remote), volume_(volume), install_prefix_(installPrefix), root_directory_(rootDirectory) {}

bool Fixer::IsFixNeeded(const DatabaseStatus& status) const {
	if (status.data_version == -1) {
		TARN_LOG(LOG_ERR, "%s not been updated yet. Need Fix", id_.c_str());
		return true;
	}
	if (CheckStatus(status.file_statuses, install_prefix_)) {
		return false;
	}
	TARN_LOG(LOG_INFO, "%s file check fail, Need Fix", id_.c_str());
	return true;
}

DatabaseStatus Fixer::Fix() const {
	return InstalledRecord::TakeStatus(FixAndTell());
}

InstalledRecord Fixer::FixAndTell() const {
	TARN_LOG(LOG_WARNING, "Try to fix database %s", id_.c_str());
	Prepared prepared =
	    PrepareNew(std::make_shared<FullStrategy>(id_, remote_, volume_, install_prefix_, root_directory_));
	Validate({id_, std::nullopt, remote_.data_version, volume_, install_prefix_}, prepared.content);
	return {remote_.data_version, remote_.last_fetch_time, Install(id_, std::move(prepared), install_prefix_, [] {})};
}

} // namespace tarn::dataupdate
