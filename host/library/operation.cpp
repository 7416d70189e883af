#include "host/library/operation.h"

#include "dataupdate/installation.h"
#include "dataupdate/interruption.h"
#include "dataupdate/progress.h"
#include "host/library/package_plan.h"
#include "host/library/preparation.h"
#include "host/library/rejection.h"

#include <syslog.h>

#include <exception>
#include <map>
#include <utility>

namespace tarn::ctl {

using dataupdate::DatabaseStatus;
using dataupdate::InstalledRecord;
using dataupdate::RemoteInfo;
using Diffs = std::map<int, dataupdate::DiffInfo>;

namespace {

/** Says beforehand what the library's "No sufficient diff patched" will mean, which sounds like a failure. */
void LogMissingDiff(const std::string& id, const Outcome& outcome, const Diffs& diffs) {
	if (outcome.before < 0) {
		syslog(LOG_NOTICE,
		    "%s is not installed, so that it comes by the full package; \"No sufficient diff patched\" says only this.",
		    id.c_str());
		return;
	}
	int version = outcome.before;
	while (version < outcome.offered && diffs.count(version + 1) > 0) {
		++version;
	}
	if (version < outcome.offered) {
		syslog(LOG_NOTICE,
		    "The server has no diff package from version %d to %d of %s, on the way from %d to %d, so that it comes by "
		    "the full package; \"No sufficient diff patched\" says only this, and nothing is to be done.",
		    version, version + 1, id.c_str(), outcome.before, outcome.offered);
	}
}

/** The version of what a killed run had ready for this database where it is installed now. */
std::optional<int> FindPrepared(const Services& services, const std::string& id) {
	return services.find_prepared ? services.find_prepared(id, services.config->GetCurVolume(),
	                                    services.config->GetDatabaseConfig(id)->GetInstallPrefix())
	                              : std::nullopt;
}

/** What passes through the library's front, which holds it all the time; the files pass beside it. */
DatabaseStatus WithoutFiles(int data_version, int last_fetch_time) {
	DatabaseStatus status;
	status.data_version = data_version;
	status.last_fetch_time = last_fetch_time;
	return status;
}

/** Finishes what a killed run had prepared. Without success the operation that follows does what it would have done. */
Outcome Finish(const Services& services, const std::string& id, const Operation::CheckVolume& check_volume) {
	try {
		if (FindPrepared(services, id)) {
			Operation operation(services, id, Change::kFinish, check_volume);
			operation.Front().UpdateProject(id);
			return operation.Result();
		}
	} catch (const std::exception& error) {
		if (dataupdate::IsInterruptionRequested()) {
			throw;
		}
		syslog(
		    LOG_WARNING, "The replacement of '%s' that was killed could not be finished: %s", id.c_str(), error.what());
	}
	return {};
}

Outcome AfterFinishing(const Services& services, const std::string& id, Change change, RefusedVersion refused,
    const Operation::CheckVolume& check_volume) {
	const Outcome finished = Finish(services, id, check_volume);
	Operation operation(services, id, change, check_volume);
	if (refused == RefusedVersion::kRetry) {
		operation.RetryRefused();
	}
	if (change == Change::kFix) {
		// Asks the check again, whatever it said before: a person wants it, or there is nothing better to be had.
		RememberingRejection(id, operation.Result().offered, [&] { operation.Front().FixProject(id); });
	} else {
		operation.Front().UpdateProject(id);
	}
	Outcome outcome = operation.Result();
	if (finished.installed && !outcome.installed) {
		outcome.before = finished.before;
		outcome.installed = finished.installed;
		outcome.is_finished = true;
	}
	return outcome;
}

} // namespace

/** What the library asks, and tells at the end. */
class Operation::OwnInfo : public dataupdate::InfoGetter, public dataupdate::RecordTaker {
public:
	explicit OwnInfo(Operation& operation)
	    : InfoGetter(operation.services_.io, operation.services_.config), operation_(operation) {}

	RemoteInfo GetRemoteInfo(const std::string& /*id*/) const override {
		return operation_.change_ == Change::kFinish ? operation_.AskPlan() : operation_.AskServer();
	}
	Diffs GetDiffInfos(const std::string& id) const override {
		if (operation_.change_ == Change::kFinish) {
			return {};
		}
		Diffs diffs = operation_.services_.info->GetDiffInfos(id);
		LogMissingDiff(id, operation_.outcome_, diffs);
		PlanChain(operation_.services_, id, operation_.outcome_.before, operation_.outcome_.offered, diffs);
		return diffs;
	}
	DatabaseStatus GetDatabaseStatus(const std::string& /*id*/) const override { return operation_.ReadStatus(); }
	void SetDatabaseStatus(const std::string& /*id*/, const DatabaseStatus& status) const override {
		operation_.RecordStatus(status);
	}
	void TakeRecord(const std::string& /*id*/, InstalledRecord record) const override {
		operation_.RecordStatus(std::move(record));
	}

private:
	Operation& operation_;
};

/** How the library installs. */
class Operation::OwnUpdater : public dataupdate::Updater {
public:
	explicit OwnUpdater(Operation& operation) : operation_(operation) {}

	DatabaseStatus Update(const std::string& id, const DatabaseStatus& status, const RemoteInfo& remote,
	    const Diffs& diffs, const std::string& volume, const std::string& installPrefix,
	    const std::string& rootDirectory) const override {
		if (operation_.change_ == Change::kFinish) {
			operation_.update_ = operation_.services_.finish(id, volume, installPrefix);
			operation_.record_.RecallUnfinished();
		} else {
			operation_.Install(status, remote, diffs, volume, installPrefix, rootDirectory);
		}
		return WithoutFiles(operation_.update_.data_version, operation_.update_.last_fetch_time);
	}

private:
	Operation& operation_;
};

Operation::Operation(const Services& services, const std::string& id, Change change, CheckVolume check_volume,
    std::optional<int> expected)
    : services_(services),
      id_(id),
      change_(change),
      check_volume_(std::move(check_volume)),
      record_(services, id),
      packages_(expected) {}

dataupdate::Update Operation::Front() {
	return {Updater(), Info(), services_.config};
}

std::shared_ptr<dataupdate::InfoGetter> Operation::Info() {
	return std::make_shared<OwnInfo>(*this);
}

std::shared_ptr<dataupdate::Updater> Operation::Updater() {
	return std::make_shared<OwnUpdater>(*this);
}

RemoteInfo Operation::AskServer() {
	RemoteInfo remote = services_.info->GetRemoteInfo(id_);
	outcome_.offered = remote.data_version;
	check_volume_(); // Last, because a download may have taken long as well.
	if (change_ == Change::kUpdate) {
		record_.Mend(outcome_.before);
	} else if (change_ == Change::kForced) {
		record_.PrepareForced();
	}
	return remote;
}

RemoteInfo Operation::AskPlan() const {
	check_volume_();
	// Under the lock, because the run that seemed to be killed may have been another one that was still at work.
	const std::optional<int> version = FindPrepared(services_, id_);
	return {version.value_or(outcome_.before), 0, false, ""};
}

void Operation::Install(const DatabaseStatus& status, const RemoteInfo& remote, const Diffs& diffs,
    const std::string& volume, const std::string& install_prefix, const std::string& root_directory) {
	if (refused_ == RefusedVersion::kLeave) {
		RequireNotRejected(id_, remote.data_version);
	}
	record_.PrepareUpdate();
	const std::uint64_t bytes_before = dataupdate::DownloadedBytes();
	RememberingRejection(id_, remote.data_version, [&] {
		update_ = services_.update(id_, status, remote, diffs, volume, install_prefix, root_directory,
		    [this](const std::string& name) { return record_.KnownDigest(name); });
	});
	outcome_.downloaded_bytes = dataupdate::DownloadedBytes() - bytes_before;
	if (!update_.is_full) {
		outcome_.full_package_bytes = FullPackageBytes(*services_.info, id_);
	}
}

DatabaseStatus Operation::ReadStatus() {
	const InstalledRecord record = ReadInstalled(services_, id_);
	DatabaseStatus status = WithoutFiles(record.data_version, record.last_fetch_time);
	outcome_.before = status.data_version;
	outcome_.was_unfinished = dataupdate::IsReplacementMarked(id_);
	if (change_ == Change::kFix) {
		check_volume_();
		// The library's own record does not name every file; it reinstalls what seems not to be installed.
		if (record_.FindsDamage(record)) {
			status.data_version = -1;
		}
	}
	return status;
}

/**
 * The old records go first and the new ones come last. A process that is killed in between leaves none, never wrong
 * ones.
 */
void Operation::RecordStatus(InstalledRecord record) {
	const dataupdate::InterruptionShield shield;
	if (change_ == Change::kUpdate || change_ == Change::kFinish) {
		record.files = std::move(update_.files);
	}
	if (!update_.is_full) {
		record_.RecallBefore();
	}
	DropInstalledFiles(id_);
	ForgetInstalledPackage(id_);
	WriteInstalled(services_, id_, record);
	outcome_.installed = record.data_version;
	ForgetRejection(id_, record.data_version);
	const std::optional<OpenedPackage> package = packages_.Last(id_);
	if (package && package->data_version == record.data_version) {
		RecordInstalledPackage(id_, *package);
	}
	KeepRecord(std::move(record));
}

void Operation::KeepRecord(InstalledRecord record) {
	switch (change_) {
	case Change::kUpdate:
	case Change::kFinish:
		record_.KeepUpdated(std::move(record), update_.is_full);
		return;
	case Change::kFix:
		record_.KeepFixed(std::move(record));
		return;
	case Change::kForced:
		record_.KeepForced(record);
		return;
	}
}

Outcome UpdateDatabase(const Services& services, const std::string& id, RefusedVersion refused) {
	return AfterFinishing(services, id, Change::kUpdate, refused, [&services, &id] {
		RequireNoLostVolume(services);
		RequireSafePlaces(services, id);
	});
}

Outcome FixDatabase(const Services& services, const std::string& id) {
	return AfterFinishing(
	    services, id, Change::kFix, RefusedVersion::kRetry, [&services, &id] { RequireVolumeFor(services, id); });
}

Outcome ForceDatabase(const Services& services, const std::string& id, int version, int target) {
	Operation operation(
	    services, id, Change::kForced, [&] { RequireVolumeFor(services, id); }, target);
	operation.Front().ForceInstall(id, version);
	return operation.Result();
}

} // namespace tarn::ctl
