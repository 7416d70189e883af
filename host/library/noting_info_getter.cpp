#include "host/library/noting_info_getter.h"

#include "host/library/installed_package.h"

#include <syslog.h>

#include <utility>

namespace tarn::ctl {

namespace {

/** Says beforehand what the library's "No sufficient diff patched" will mean, which sounds like a failure. */
void NoteMissingDiff(
    const std::string& id, int installed, int offered, const std::map<int, dataupdate::DiffInfo>& diffs) {
	if (installed < 0) {
		syslog(LOG_NOTICE,
		    "%s is not installed, so that it comes by the full package; \"No sufficient diff patched\" says only this.",
		    id.c_str());
		return;
	}
	int version = installed;
	while (version < offered && diffs.count(version + 1) > 0) {
		++version;
	}
	if (version < offered) {
		syslog(LOG_NOTICE,
		    "The server has no diff package from version %d to %d of %s, on the way from %d to %d, so that it comes by "
		    "the full package; \"No sufficient diff patched\" says only this, and nothing is to be done.",
		    version, version + 1, id.c_str(), installed, offered);
	}
}

} // namespace

NotingInfoGetter::NotingInfoGetter(std::shared_ptr<dataupdate::InfoGetter> other,
    std::function<void(const std::string& id)> check_volume, std::shared_ptr<const OpenedPackages> packages)
    : InfoGetter(nullptr, nullptr),
      other_(std::move(other)),
      check_volume_(std::move(check_volume)),
      packages_(std::move(packages)) {}

dataupdate::RemoteInfo NotingInfoGetter::GetRemoteInfo(const std::string& id) const {
	dataupdate::RemoteInfo remote = other_->GetRemoteInfo(id);
	offered_ = remote.data_version;
	check_volume_(id); // Last, because a download may have taken long as well.
	return remote;
}

std::map<int, dataupdate::DiffInfo> NotingInfoGetter::GetDiffInfos(const std::string& id) const {
	std::map<int, dataupdate::DiffInfo> diffs = other_->GetDiffInfos(id);
	NoteMissingDiff(id, other_->GetDatabaseStatus(id).data_version, offered_, diffs);
	return diffs;
}

dataupdate::DatabaseStatus NotingInfoGetter::GetDatabaseStatus(const std::string& id) const {
	return other_->GetDatabaseStatus(id);
}

void NotingInfoGetter::SetDatabaseStatus(const std::string& id, const dataupdate::DatabaseStatus& status) const {
	ForgetInstalledPackage(id);
	other_->SetDatabaseStatus(id, status);
	recorded_ = true;
	const std::optional<OpenedPackage> package = packages_->Last(id);
	if (package && package->data_version == status.data_version) {
		RecordInstalledPackage(id, *package);
	}
}

Json::Value NotingInfoGetter::GetDatabaseInfo() const {
	return other_->GetDatabaseInfo();
}

std::string NotingInfoGetter::GetDatabaseUrl() const {
	return other_->GetDatabaseUrl();
}

std::string NotingInfoGetter::GetQueryString() const {
	return other_->GetQueryString();
}

} // namespace tarn::ctl
