#include "noting_info_getter.h"

#include "installed_package.h"

#include <utility>

namespace tarn::ctl {

NotingInfoGetter::NotingInfoGetter(std::shared_ptr<dataupdate::InfoGetter> other, std::function<void()> check_volume,
    std::shared_ptr<const OpenedPackages> packages)
    : InfoGetter(nullptr, nullptr),
      other_(std::move(other)),
      check_volume_(std::move(check_volume)),
      packages_(std::move(packages)) {}

dataupdate::RemoteInfo NotingInfoGetter::GetRemoteInfo(const std::string& id) const {
	dataupdate::RemoteInfo remote = other_->GetRemoteInfo(id);
	offered_ = remote.data_version;
	check_volume_(); // Last, because a download may have taken long as well.
	return remote;
}

std::map<int, dataupdate::DiffInfo> NotingInfoGetter::GetDiffInfos(const std::string& id) const {
	return other_->GetDiffInfos(id);
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
