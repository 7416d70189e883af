#include "dataupdate/service_config.h"

#include "dataupdate/messages.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"

#include <algorithm>
#include <utility>

namespace tarn::dataupdate {

namespace {

/** Whether "install_dest" says that a database is on the volume, and not in the root file system. */
bool IsOnVolume(const std::string& value) {
	if (value != "%VOLUME%" && value != "%ROOTFS%") {
		// The text names the location in place of the field. Scripts match this text, so it stays.
		throw UpdateError(messages::kInvalidValue + value + "' for '" + MainDirPath("%s") + "' field");
	}
	return value == "%VOLUME%";
}

} // namespace

DatabaseConfig::DatabaseConfig(const std::string& id, const std::string& volume, std::shared_ptr<Config> config)
    : id_(id), volume_(volume), config_(std::move(config)) {
	config_->Init(kDatabaseDefaults, kDatabaseOverride);
}

DatabaseConfig::~DatabaseConfig() = default;

bool DatabaseConfig::GetScheduled() const {
	try {
		return config_->GetAsBool(id_, "auto_update");
	} catch (const UpdateError&) {
		return true;
	}
}

void DatabaseConfig::SetScheduled(bool scheduled) const {
	config_->Set(id_, "auto_update", scheduled);
}

std::string DatabaseConfig::GetFormatVersion() const {
	return config_->Get(id_, "format_version");
}

std::string DatabaseConfig::GetInstallPrefix() const {
	return (IsOnVolume(config_->Get(id_, "install_dest")) ? MainDirPath(volume_) : "/var/db") + "/" + id_;
}

std::string DatabaseConfig::GetRootDirectory() const {
	return IsOnVolume(config_->Get(id_, "install_dest")) ? volume_ : "/";
}

unsigned long DatabaseConfig::GetMinReservedSpaceInbytes() const {
	try {
		return config_->GetAsUInt64(id_, "min_rsv_space_inbytes");
	} catch (const UpdateError&) {
		return 0;
	}
}

ServiceConfig::ServiceConfig(std::shared_ptr<Config> config) : config_(std::move(config)) {
	config_->Init(kServiceDefaults, kServiceOverride);
}

ServiceConfig::~ServiceConfig() = default;

std::vector<std::string> ServiceConfig::GetDatabaseIDs() const {
	Config databases(std::make_shared<IOUtils>());
	databases.Init(kDatabaseDefaults, kDatabaseOverride);
	return databases.GetSections();
}

std::shared_ptr<DatabaseConfig> ServiceConfig::GetDatabaseConfig(const std::string& id) const {
	const auto config = std::make_shared<Config>(std::make_shared<IOUtils>());
	return std::make_shared<DatabaseConfig>(id, GetCurVolume(), config);
}

void ServiceConfig::CheckSupported(const std::string& id) const {
	const std::vector<std::string> ids = GetDatabaseIDs();
	if (std::find(ids.begin(), ids.end(), id) == ids.end()) {
		throw UpdateError(messages::kUnknownProject + id + " not supported");
	}
}

std::string ServiceConfig::GetDownloadScheme() const {
	return config_->Get(kServiceSection, "download_scheme");
}

std::string ServiceConfig::GetDBInfoDomainName() const {
	return config_->Get(kServiceSection, "db_netloc");
}

std::string ServiceConfig::GetDBInfoVersion() const {
	return config_->Get(kServiceSection, "db_ver");
}

std::string ServiceConfig::GetCurVolume() const {
	return config_->Get(kServiceSection, "cur_volume");
}

void ServiceConfig::SetCurVolume(const std::string& volume) const {
	config_->Set(kServiceSection, "cur_volume", volume);
}

} // namespace tarn::dataupdate
