#include "host/library/operation.h"

#include "dataupdate/installation.h"
#include "dataupdate/interruption.h"
#include "dataupdate/paths.h"
#include "dataupdate/progress.h"
#include "dataupdate/update_error.h"
#include "host/library/hold.h"
#include "host/library/install_place.h"
#include "host/library/preparation.h"
#include "host/library/rejection.h"
#include "host/terminal/progress.h"

#include <syslog.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace tarn::ctl {

using dataupdate::DatabaseStatus;
using dataupdate::InstalledRecord;
using dataupdate::RemoteInfo;

namespace {

/** The diff packages that lead from one version to another, whose paths all have this beginning. */
std::vector<PlannedDownload> ChainOf(const std::string& beginning, int from, int to, const Diffs& diffs) {
	std::vector<PlannedDownload> chain;
	for (int version = from; version < to;) { // The last version has no successor.
		++version;
		const int bytes = std::max(diffs.at(version).file_size, 0);
		chain.push_back({beginning + std::to_string(version), static_cast<std::uint64_t>(bytes)});
	}
	return chain;
}

/**
 * The diff packages that will come. Without a chain of them says beforehand what the library's "No sufficient diff
 * patched" will mean, which sounds like a failure.
 */
std::vector<PlannedDownload> PlannedDiffs(
    const Services& services, const std::string& id, const Outcome& outcome, const Diffs& diffs) {
	const int end = EndOfChain(outcome.before, outcome.offered, diffs);
	const bool is_chain = outcome.before >= 0 && end >= outcome.offered;
	if (outcome.before < 0) {
		syslog(LOG_NOTICE,
		    "%s is not installed, so its full package is downloaded; \"No sufficient diff patched\" says only this.",
		    id.c_str());
	} else if (!is_chain) {
		syslog(LOG_NOTICE,
		    "The server has no diff package from version %d to %d of %s, on the way from %d to %d, so its full "
		    "package is downloaded; \"No sufficient diff patched\" says only this, and nothing is to be done.",
		    end, end + 1, id.c_str(), outcome.before, outcome.offered);
	}
	const std::string beginning = dataupdate::TempDirPath(services.config->GetCurVolume()) + "/" + id + "_d";
	return is_chain ? ChainOf(beginning, outcome.before, outcome.offered, diffs) : std::vector<PlannedDownload>();
}

/** What passes through the library's front, which holds it all the time; the files pass beside it. */
DatabaseStatus WithoutFiles(int data_version, int last_fetch_time) {
	return InstalledRecord::TakeStatus({data_version, last_fetch_time, {}});
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
		if (operation_.change_ == Change::kFinish || operation_.outcome_.goes_back || operation_.outcome_.old_place) {
			return {}; // Diff packages only lead forward, and only from the files that they were made for.
		}
		Diffs diffs = operation_.services_.info->GetDiffInfos(id);
		PlanDownloads(PlannedDiffs(operation_.services_, id, operation_.outcome_, diffs));
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

	DatabaseStatus Update(const std::string& /*id*/, const DatabaseStatus& status, const RemoteInfo& remote,
	    const Diffs& diffs, const std::string& volume, const std::string& installPrefix,
	    const std::string& rootDirectory) const override {
		operation_.Install(status, remote, diffs, volume, installPrefix, rootDirectory);
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
	LookBack();
	check_volume_(); // Last, because a download may have taken long as well.
	if (change_ == Change::kUpdate) {
		RequireNoHold();
		record_.Mend(outcome_.before);
	} else if (change_ == Change::kForced) {
		record_.PrepareForced([this] { return ReadHere(); });
	}
	return change_ == Change::kFix ? ForFix(std::move(remote)) : remote;
}

void Operation::RequireNoHold() const {
	const std::optional<Hold> hold = ReadHold(id_);
	if (!hold) {
		return;
	}
	const bool is_newer = outcome_.was_unfinished || outcome_.offered > outcome_.before;
	if (!hold->up_to || (is_newer && !hold->Allows(outcome_.offered))) {
		throw Refusal(kHeld, DescribeHold(*hold));
	}
}

RemoteInfo Operation::ForFix(RemoteInfo remote) {
	const std::optional<Hold> hold = ReadHold(id_);
	if (!hold || (remote.data_version >= outcome_.before && hold->Allows(remote.data_version))) {
		return remote;
	}
	if (outcome_.before < 0) {
		RequireNotHeld(id_, remote.data_version);
	}
	outcome_.held_at = outcome_.before;
	const int difference = outcome_.before - remote.data_version;
	return dataupdate::Retarget(std::move(remote), difference > 0 ? outcome_.before : difference);
}

void Operation::Install(const DatabaseStatus& status, const RemoteInfo& remote, const Diffs& diffs,
    const std::string& volume, const std::string& install_prefix, const std::string& root_directory) {
	install_prefix_ = install_prefix;
	if (change_ == Change::kFinish) {
		update_ = services_.finish(id_, volume, install_prefix);
		record_.RecallUnfinished();
		return;
	}
	if (refused_ == RefusedVersion::kLeave) {
		RequireNotRejected(id_, remote.data_version);
	}
	const std::uint64_t before = dataupdate::DownloadedBytes();
	const UpdateWay way = FindWay({outcome_.before, outcome_.was_unfinished, outcome_.offered}, diffs);
	if (way.is_chain) {
		RequireChainWithin(budget_, way);
	}
	record_.PrepareUpdate();
	const dataupdate::UpdateAdvice advice = {[this](const std::string& name) { return record_.KnownDigest(name); },
	    [&] { RequireFullPackage(remote.download_link, dataupdate::DownloadedBytes() - before); },
	    outcome_.goes_back ? std::optional(outcome_.before) : std::nullopt};
	try {
		update_ = services_.update(id_, status, remote, diffs, volume, install_prefix, root_directory, advice);
	} catch (const dataupdate::UpdateError& error) {
		RememberRejection(id_, remote.data_version, error.what());
		throw;
	}
	outcome_.downloaded_bytes = dataupdate::DownloadedBytes() - before;
	spared_link_ = update_.is_full ? "" : remote.download_link;
}

void Operation::RequireFullPackage(const std::string& link, std::uint64_t spent) const {
	RequireFullPackageWithin(budget_, spent,
	    [&] { return services_.package_size ? services_.package_size(link) : std::optional<std::uint64_t>(); });
	const std::optional<std::uint64_t> most = MostOfFullPackage(budget_, spent);
	if (most && services_.restrict_download) {
		services_.restrict_download(link, *most);
	}
}

RemoteInfo Operation::AskPlan() const {
	check_volume_();
	// Under the lock, because the run that seemed to be killed may have been another one that was still at work.
	const std::optional<int> version = FindPrepared(services_, id_);
	if (!version && outcome_.was_unfinished) { // The library would finish it all the same.
		throw CommandError(kFailed, "a hold is in the way, or what was prepared is no longer whole");
	}
	return {version.value_or(outcome_.before), 0, false, ""};
}

/** The library takes any version for newer than an unfinished one. */
void Operation::LookBack() {
	if (older_ == Older::kRefused && outcome_.was_unfinished && outcome_.offered < outcome_.before) {
		throw CommandError(kAboveOffered, "The last replacement of the files of version " +
		                                      std::to_string(outcome_.before) + " of " + id_ +
		                                      " was not finished, and version " + std::to_string(outcome_.offered) +
		                                      " is older; nothing was changed, and --force installs it");
	}
}

DatabaseStatus Operation::ReadStatus() {
	const InstalledRecord record = ReadHere();
	DatabaseStatus status = WithoutFiles(record.data_version, record.last_fetch_time);
	outcome_.before = status.data_version;
	outcome_.was_unfinished = dataupdate::IsReplacementMarked(id_);
	latest_ = std::max(outcome_.before, dataupdate::FindUnfinishedVersion(id_).value_or(-1));
	if (older_ == Older::kInstalled && services_.info->GetRemoteInfo(id_).data_version < outcome_.before) {
		outcome_.goes_back = true;
		status.data_version = -1; // For which the library takes any version, by its full package.
	}
	if (change_ == Change::kFix) {
		check_volume_();
		// The library's own record does not name every file; it reinstalls what seems not to be installed.
		if (record_.FindsDamage(record)) {
			status.data_version = -1;
		}
	}
	return status;
}

void Operation::TellWayBack() {
	const bool is_meant =
	    change_ == Change::kFinish || change_ == Change::kForced || outcome_.goes_back || outcome_.held_at;
	if (!is_meant && *outcome_.installed < latest_) {
		outcome_.back_from = latest_;
		syslog(LOG_WARNING, "%s went back to version %d, though version %d was installed or half installed",
		    id_.c_str(), *outcome_.installed, latest_);
	}
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
	if (install_prefix_.empty()) {
		install_prefix_ = services_.config->GetDatabaseConfig(id_)->GetInstallPrefix();
	}
	RecordInstallPlace(id_, install_prefix_);
	WriteInstalled(services_, id_, record);
	outcome_.installed = record.data_version;
	LogLeftBehind(id_, outcome_.old_place, install_prefix_);
	TellWayBack();
	ForgetRejection(id_, record.data_version);
	const std::optional<OpenedPackage> package = packages_.Last(id_);
	if (package && package->data_version == record.data_version) {
		RecordInstalledPackage(id_, *package);
	}
	if (change_ == Change::kForced) {
		record_.KeepForced(record);
	} else {
		record_.KeepUpdated(std::move(record), change_ == Change::kFix || update_.is_full);
	}
}

} // namespace tarn::ctl
