#include "dataupdate/updater.h"

#include "dataupdate/hook.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/digests_ahead.h"
#include "dataupdate/internal/file_copy.h"
#include "dataupdate/internal/log.h"
#include "dataupdate/internal/patch_description.h"
#include "dataupdate/strategy.h"
#include "dataupdate/update_error.h"

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace tarn::dataupdate {

namespace {

constexpr char kLogSource[] = "updater.cpp";

template<typename Files, typename NameOf>
std::vector<std::string> Joined(const std::string& root, const Files& files, const NameOf& name_of) {
	std::vector<std::string> paths;
	paths.reserve(files.size());
	for (const auto& file : files) {
		paths.push_back(JoinPath(root, name_of(file)));
	}
	return paths;
}

/** Logs each file that is not as recorded, in order, and hands its name to a function until that returns false. */
void ForEachBad(const std::map<std::string, FileStatus>& statuses, const std::string& root,
    const std::function<bool(const std::string& name)>& visit) {
	DigestsAhead digests(Joined(root, statuses, [](const auto& entry) { return entry.first; }));
	for (const auto& [name, status] : statuses) {
		const std::optional<std::string> digest = digests.Next();
		if (digest == status.sha384_digest) {
			continue;
		}
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

DatabaseStatus NewStatus(
    const RemoteInfo& remote, const std::set<std::string>& files, const std::string& install_prefix) {
	DatabaseStatus status;
	status.data_version = remote.data_version;
	status.last_fetch_time = remote.last_fetch_time;
	status.file_statuses = CalculateStatus(files, install_prefix);
	return status;
}

/** Installs a prepared strategy between the hooks and describes the result; announce is called before the change. */
DatabaseStatus Install(const std::string& id, BaseStrategy& strategy, const RemoteInfo& remote,
    const std::string& install_prefix, const std::function<void()>& announce) {
	const std::set<std::string> files = strategy.GetModifiedFiles();
	UpdateHook hook(id, files);
	InterruptionPoint(); // Better now than between the hooks.
	hook.ExecPre();
	announce();
	strategy.ApplyUpdate();
	// What has changed is described to the end: the caller could not tell an end here from one before the change.
	const InterruptionShield shield;
	hook.ExecPost();
	return NewStatus(remote, files, install_prefix);
}

} // namespace

bool CheckStatus(const std::map<std::string, FileStatus>& statuses, const std::string& root) {
	bool is_good = true;
	ForEachBad(statuses, root, [&](const std::string& /*name*/) { return is_good = false; });
	return is_good;
}

std::vector<std::string> FindBadFiles(const std::map<std::string, FileStatus>& statuses, const std::string& root) {
	std::vector<std::string> bad;
	ForEachBad(statuses, root, [&](const std::string& name) {
		bad.push_back(name);
		return true;
	});
	return bad;
}

// By value, as the interface has it. NOLINTNEXTLINE(performance-unnecessary-value-param)
std::map<std::string, FileStatus> CalculateStatus(std::set<std::string> files, const std::string& root) {
	DigestsAhead digests(Joined(root, files, [](const std::string& name) { return name; }));
	std::map<std::string, FileStatus> statuses;
	for (const std::string& name : files) {
		if (const std::optional<std::string> digest = digests.Next()) {
			statuses.emplace_hint(statuses.end(), name, FileStatus(*digest));
		}
	}
	return statuses;
}

Updater::~Updater() = default;

DatabaseStatus Updater::Update(const std::string& id, const DatabaseStatus& status, const RemoteInfo& remote,
    const std::map<int, DiffInfo>& diffs, const std::string& volume, const std::string& installPrefix,
    const std::string& rootDirectory) const {
	return UpdateAndTell(id, status, remote, diffs, volume, installPrefix, rootDirectory).status;
}

UpdateResult Updater::UpdateAndTell(const std::string& id, const DatabaseStatus& status, const RemoteInfo& remote,
    const std::map<int, DiffInfo>& diffs, const std::string& volume, const std::string& installPrefix,
    const std::string& rootDirectory) const {
	UpdateResult result;
	TARN_LOG(LOG_NOTICE, "Prepare diff update: %s", id.c_str());
	std::shared_ptr<BaseStrategy> strategy;
	try {
		strategy = std::make_shared<DiffStrategy>(id, status, remote, diffs, volume, installPrefix, rootDirectory);
		strategy->PrepareUpdate();
	} catch (const UpdateError& error) {
		strategy = std::make_shared<FullStrategy>(id, remote, volume, installPrefix, rootDirectory);
		TARN_LOG(LOG_WARNING, "Diff update fail, try full update: %s", error.what());
		TARN_LOG(LOG_NOTICE, "Prepare full update: %s", id.c_str());
		strategy->PrepareUpdate();
		result.is_full = true;
	}
	const auto announce = [&id] { TARN_LOG(LOG_NOTICE, "Apply update: %s", id.c_str()); };
	result.files = strategy->GetModifiedFiles();
	result.status = Install(id, *strategy, remote, installPrefix, announce);
	// Temporary data goes first, so that what was never written to the disk never has to be.
	strategy.reset();
	SyncInstalled(installPrefix);
	return result;
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
	TARN_LOG(LOG_WARNING, "Try to fix database %s", id_.c_str());
	DatabaseStatus result;
	{
		FullStrategy strategy(id_, remote_, volume_, install_prefix_, root_directory_);
		strategy.PrepareUpdate();
		result = Install(id_, strategy, remote_, install_prefix_, [] {});
	}
	SyncInstalled(install_prefix_);
	return result;
}

} // namespace tarn::dataupdate
