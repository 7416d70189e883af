#include "dataupdate/update.h"

#include "dataupdate/file_lock.h"
#include "dataupdate/internal/file_copy.h"
#include "dataupdate/internal/log.h"
#include "dataupdate/internal/replacement_plan.h"
#include "dataupdate/internal/replacement_scope.h"
#include "dataupdate/messages.h"
#include "dataupdate/paths.h"
#include "dataupdate/strategy.h"
#include "dataupdate/update_error.h"
#include "dataupdate/volume_handler.h"

#include <boost/algorithm/string/replace.hpp>

#include <cstdint>
#include <optional>
#include <utility>

namespace tarn::dataupdate {

namespace {

constexpr char kLogSource[] = "update";

/**
 * Runs an operation on a supported database under the lock on any update and the lock on this one's, taken in this
 * order. They are released in the reverse, after a failure has been logged.
 */
template<typename Operation>
void RunLocked(const ServiceConfig& config, const std::string& id, const char* name, const Operation& operation) {
	std::optional<FileLock> any_lock;
	std::optional<FileLock> project_lock;
	try {
		config.CheckSupported(id);
		any_lock.emplace(kUpdateAnyLock, kLockTimeout);
		project_lock.emplace(UpdateLockPath(id), kLockTimeout);
		if (!MayBeAMixture(id)) {
			RemovePlan(id); // A power cut can bring the end of a mark to the disk, and not that of its plan.
		}
		operation();
	} catch (const UpdateError& error) {
		TARN_LOG(LOG_INFO, "%s %s fail: %s", name, id.c_str(), error.what());
		throw UpdateError(error);
	}
}

void SetRecord(const InfoGetter& getter, const std::string& id, InstalledRecord record) {
	if (const auto* const taker = dynamic_cast<const RecordTaker*>(&getter)) {
		taker->TakeRecord(id, std::move(record));
	} else {
		getter.SetDatabaseStatus(id, InstalledRecord::TakeStatus(std::move(record)));
	}
}

/** What is installed. A mixture that a killed run left is treated as nothing, whatever the record says. */
DatabaseStatus InstalledStatus(const InfoGetter& getter, const std::string& id) {
	DatabaseStatus status = getter.GetDatabaseStatus(id);
	if (IsReplacementMarked(id)) {
		TARN_LOG(LOG_WARNING, "The last replacement of '%s' was not finished", id.c_str());
		status.data_version = -1;
	}
	return status;
}

} // namespace

Update::Update(std::shared_ptr<Updater> updater, std::shared_ptr<InfoGetter> info_getter,
    std::shared_ptr<ServiceConfig> service_config)
    : updater_(std::move(updater)), info_getter_(std::move(info_getter)), service_config_(std::move(service_config)) {}

Update::~Update() = default;

void Update::UpdateAllProjects() const {
	OperateAllProjects([this](const std::string& id) { UpdateProject(id); });
}

void Update::UpdateProject(const std::string& id) const {
	RunLocked(*service_config_, id, "Update", [&] {
		const DatabaseStatus status = InstalledStatus(*info_getter_, id);
		const RemoteInfo remote = info_getter_->GetRemoteInfo(id);
		std::map<int, DiffInfo> diffs = info_getter_->GetDiffInfos(id);
		if (IsReplacementMarked(id)) {
			diffs.clear(); // A chain from the first version on would leave other files of the mixture.
		}
		const std::shared_ptr<DatabaseConfig> config = service_config_->GetDatabaseConfig(id);
		if (status.data_version >= remote.data_version) {
			TARN_LOG(LOG_INFO, "'%s' has been up to date", id.c_str());
			return;
		}
		TARN_LOG(LOG_WARNING, "Update %s", id.c_str());
		if (service_config_->GetCurVolume().empty()) {
			TARN_LOG(LOG_WARNING, "There is no volume, stopping updating.");
			return;
		}
		const std::string root_directory = config->GetRootDirectory();
		const std::string install_prefix = config->GetInstallPrefix();
		const std::string volume = service_config_->GetCurVolume();
		const ReplacementScope replacement(id);
		info_getter_->SetDatabaseStatus(
		    id, updater_->Update(id, status, remote, diffs, volume, install_prefix, root_directory));
		replacement.EndByRecord();
		TARN_LOG(LOG_WARNING, "Update %s completed and succeed", id.c_str());
	});
}

void Update::FixAllProjects() const {
	OperateAllProjects([this](const std::string& id) { FixProject(id); });
}

void Update::FixProject(const std::string& id) const {
	RunLocked(*service_config_, id, "Fix", [&] {
		const DatabaseStatus status = InstalledStatus(*info_getter_, id);
		const RemoteInfo remote = info_getter_->GetRemoteInfo(id);
		const std::shared_ptr<DatabaseConfig> config = service_config_->GetDatabaseConfig(id);
		const std::string root_directory = config->GetRootDirectory();
		const std::string install_prefix = config->GetInstallPrefix();
		const std::string volume = service_config_->GetCurVolume();
		const Fixer fixer(id, remote, volume, install_prefix, root_directory);
		if (!fixer.IsFixNeeded(status)) {
			return;
		}
		const ReplacementScope replacement(id);
		SetRecord(*info_getter_, id, fixer.FixAndTell());
		replacement.EndByRecord();
		TARN_LOG(LOG_WARNING, "Fix %s completed and succeed", id.c_str());
	});
}

void Update::ForceInstall(const std::string& id, int version) const {
	const FileLock any_lock(kUpdateAnyLock, kLockTimeout);
	const FileLock project_lock(UpdateLockPath(id), kLockTimeout);
	const RemoteInfo remote = Retarget(info_getter_->GetRemoteInfo(id), version);
	const std::shared_ptr<DatabaseConfig> config = service_config_->GetDatabaseConfig(id);
	const std::string install_prefix = config->GetInstallPrefix();
	const std::string volume = service_config_->GetCurVolume();
	const ReplacementScope replacement(id);
	ForceInstallByLink strategy(id, remote.download_link, volume, install_prefix, "/");
	strategy.PrepareUpdate();
	strategy.ApplyUpdate();
	const std::set<std::string> files = strategy.GetModifiedFiles();
	DatabaseStatus status;
	status.data_version = remote.data_version;
	status.last_fetch_time = remote.last_fetch_time;
	status.file_statuses = CalculateStatus(files, config->GetInstallPrefix());
	SyncInstalled(install_prefix);
	info_getter_->SetDatabaseStatus(id, status);
	replacement.EndByRecord();
}

// By value, as the interface has it. NOLINTNEXTLINE(performance-unnecessary-value-param)
void Update::OperateAllProjects(std::function<void(const std::string&)> operation) const {
	for (const std::string& id : service_config_->GetDatabaseIDs()) {
		try {
			const bool scheduled = service_config_->GetDatabaseConfig(id)->GetScheduled();
			const std::string volume = service_config_->GetCurVolume();
			if (!scheduled) {
				continue;
			}
			if (volume.empty()) {
				TARN_LOG(LOG_WARNING, "There is no volume, stopping operation.");
				return;
			}
			operation(id);
		} catch (const UpdateError& error) {
			throw UpdateError(messages::kOnProject + id + messages::kOnProjectEnd + error.what());
		}
	}
}

RemoteInfo Retarget(RemoteInfo remote, int version) {
	const int current = remote.data_version;
	if (version != 0) {
		// 64 bits, because a caller may name a number that leads below the smallest version.
		remote.data_version = static_cast<int>(version > 0 ? version : std::int64_t{current} + version);
	}
	boost::algorithm::replace_all(remote.download_link, std::to_string(current), std::to_string(remote.data_version));
	return remote;
}

void InitService() {
	const auto config = std::make_shared<Config>(std::make_shared<IOUtils>());
	const VolumeHandler handler(std::make_shared<ServiceConfig>(config));
	handler.InitVolume();
}

} // namespace tarn::dataupdate
