#include "dataupdate/internal/planned_strategy.h"

#include "base/text.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/installation.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/patch_description.h"
#include "dataupdate/internal/replacement_scope.h"
#include "dataupdate/internal/staged_changes.h"
#include "dataupdate/internal/staged_tree.h"
#include "dataupdate/internal/strategy_steps.h"
#include "dataupdate/messages.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"

#include <boost/filesystem.hpp>

#include <exception>
#include <functional>
#include <set>
#include <string_view>
#include <utility>

namespace tarn::dataupdate {

namespace fs = boost::filesystem;

namespace {

bool Exists(const std::string& path) {
	boost::system::error_code ignored;
	return fs::exists(fs::symlink_status(path, ignored));
}

/** Removes what a killed run prepared for a database; what another database's run prepared may be wanted yet. */
void ClearPrepared(const std::string& volume, const std::string& id) {
	const std::string own = TempPath(volume, id, "");
	IOUtils().IterateDirectory(
	    TempDirPath(volume),
	    [&own](const std::string& entry) {
		    if (StartsWith(entry, own) && IsTempSuffix(std::string_view(entry).substr(own.size()))) {
			    ClearTmpData(entry);
		    }
	    },
	    false);
}

bool IsInPlace(const ReplacementPlan& plan, std::size_t at) {
	const std::string installed = JoinPath(plan.version.install_directory, std::string(plan.files.Name(at)));
	const std::string identity = plan.files.Text(at);
	return identity.empty() ? !Exists(installed) : IdentityOf(installed) == identity;
}

/** Whether each file of the plan is ready, or in its place. */
bool IsWhole(const ReplacementPlan& plan) {
	for (std::size_t at = 0; at < plan.files.Size(); ++at) {
		const std::string identity = plan.files.Text(at);
		if (!identity.empty() && !IsInPlace(plan, at) && IdentityOf(plan.sources.Text(at)) != identity) {
			return false;
		}
	}
	return true;
}

} // namespace

PlannedStrategy::PlannedStrategy(std::string id, ReplacementPlan plan) : id_(std::move(id)), plan_(std::move(plan)) {}

PlannedStrategy::~PlannedStrategy() {
	if (!is_applied_) {
		return; // Another try finds all that was prepared.
	}
	try {
		ClearPrepared(plan_.version.volume, id_);
	} catch (const std::exception&) {
		ClearTmpData(TempDirPath(plan_.version.volume)); // Which logs what is wrong with it.
	}
}

void PlannedStrategy::PrepareUpdate() {
	const std::string kind = plan_.version.is_full ? kFullPackage : kDiffPackage;
	NotePackage(TempPath(plan_.version.volume, id_, kind + std::to_string(plan_.version.data_version)));
}

void PlannedStrategy::ApplyUpdate() {
	const PlannedVersion& version = plan_.version;
	try {
		StagedChanges changes(_Remaining(), version.install_directory, TempPath(version.volume, id_, kStaged));
		if (!version.is_full) {
			changes.Stage();
		}
		KeepPlan(id_);
		const FileLock lock(UsingLockPath(id_), kLockTimeout);
		const ActivityScope activity(Phase::kApply, version.install_directory);
		AnnounceReplacement(id_);
		if (version.is_full) {
			_MoveTree();
		} else {
			changes.Install();
		}
		is_applied_ = true;
	} catch (const std::exception& error) {
		throw UpdateError(std::string(version.is_full ? messages::kFullUpdate : messages::kDiffUpdate) + error.what());
	}
}

FileList PlannedStrategy::ListModifiedFiles() const {
	FileList files;
	for (std::size_t at = 0; at < plan_.files.Size(); ++at) {
		const std::string name(plan_.files.Name(at));
		files.Add(plan_.version.is_full ? JoinPath(plan_.version.install_directory, name) : name);
	}
	return files;
}

Changes PlannedStrategy::_Remaining() const {
	Changes remaining;
	for (std::size_t at = 0; at < plan_.files.Size() && !plan_.version.is_full; ++at) {
		if (!IsInPlace(plan_, at)) {
			const auto operation = plan_.files.HasText(at) ? ModifyInfo::kOverride : ModifyInfo::kDelete;
			remaining[std::string(plan_.files.Name(at))] = {operation, plan_.sources.Text(at)};
		}
	}
	return remaining;
}

void PlannedStrategy::_MoveTree() const {
	const StagedTree tree(plan_.version.volume, id_, plan_.version.install_directory);
	if (!Exists(tree.Path())) {
		return; // It had been moved in as a whole.
	}
	std::set<std::string, std::less<>> planned;
	for (std::size_t at = 0; at < plan_.files.Size(); ++at) {
		const std::string_view name = plan_.files.Name(at);
		planned.emplace(name.substr(0, name.find('/')));
	}
	tree.ClearInstalled(
	    [&](const std::string& name) { return planned.count(name) > 0 && !Exists(JoinPath(tree.Path(), name)); });
	if (!tree.MoveIn()) {
		throw UpdateError("what was prepared cannot be moved to its place");
	}
}

std::optional<ReplacementPlan> FindWholePlan(
    const std::string& id, const std::string& volume, const std::string& install_directory) {
	if (!MayBeAMixture(id)) {
		return std::nullopt;
	}
	std::optional<ReplacementPlan> plan = ReadPlan(id);
	if (!plan || plan->version.volume != volume || plan->version.install_directory != install_directory) {
		return std::nullopt;
	}
	return IsWhole(*plan) ? std::move(plan) : std::nullopt;
}

} // namespace tarn::dataupdate
