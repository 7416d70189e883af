#include "dataupdate/internal/fresh_info.h"
#include "dataupdate/internal/log.h"
#include "dataupdate/internal/paths.h"
#include "dataupdate/update.h"
#include "dataupdate/update_error.h"

#include <tarncrypto/tarncrypto.h>

#include <algorithm>
#include <utility>

namespace tarn::dataupdate {

namespace {

constexpr char kLogSource[] = "update";
constexpr int kHardwareIdBytes = 16;

struct HardwareIdCloser {
	void operator()(tarncrypto_hwid* context) const { tarncrypto_hwid_free(context); }
};

std::string HardwareId() {
	const std::unique_ptr<tarncrypto_hwid, HardwareIdCloser> context(tarncrypto_hwid_init());
	if (!context || !tarncrypto_hwid_str(context.get(), kHardwareIdBytes)) {
		syslog(LOG_ERR, "Failed to init hwid context");
		return "";
	}
	return context->str;
}

} // namespace

InfoGetter::InfoGetter(std::shared_ptr<IOUtils> io, std::shared_ptr<ServiceConfig> service_config)
    : io_(std::move(io)), service_config_(std::move(service_config)) {}

InfoGetter::~InfoGetter() = default;

RemoteInfo InfoGetter::GetRemoteInfo(const std::string& id) const {
	const Json::Value document = GetDatabaseInfo();
	Json::Value entry = document["db_list"][id];
	if (document["deprecated"].asBool() || !entry.isMember("deprecated")) {
		entry["deprecated"] = document["deprecated"];
	}
	return RemoteInfo::FromJson(entry);
}

std::map<int, DiffInfo> InfoGetter::GetDiffInfos(const std::string& id) const {
	const Json::Value document = GetDatabaseInfo();
	return DiffInfo::BatchFromJson(document["db_list"][id]["diff_files"]);
}

DatabaseStatus InfoGetter::GetDatabaseStatus(const std::string& id) const {
	try {
		return DatabaseStatus::FromJson(io_->ReadJson(StatusPath(id)));
	} catch (const UpdateError& error) {
		if (error.code() == UpdateError::kFileNotExist) {
			TARN_LOG(LOG_INFO, "%s", error.what());
		} else {
			TARN_LOG(LOG_WARNING, "%s", error.what());
			TARN_LOG(LOG_WARNING, "%s version file gone or corrupted or in the first updating", id.c_str());
		}
		return {};
	}
}

void InfoGetter::SetDatabaseStatus(const std::string& id, const DatabaseStatus& status) const {
	io_->WriteJson(StatusPath(id), DatabaseStatus::ToJson(status));
}

Json::Value InfoGetter::GetDatabaseInfo() const {
	return GetFreshInfo(
	    *io_, [this] { return GetDatabaseUrl(); }, kLockTimeout);
}

std::string InfoGetter::GetDatabaseUrl() const {
	const std::string scheme = service_config_->GetDownloadScheme();
	const std::string host = service_config_->GetDBInfoDomainName();
	const std::string version = service_config_->GetDBInfoVersion();
	return (NoexceptFormat("%s://%s/database_info/%s%s") % scheme % host % version % GetQueryString()).str();
}

std::string InfoGetter::GetQueryString() const {
	std::string query = "?os=orv&dlid=" + HardwareId();
	std::vector<std::string> ids = service_config_->GetDatabaseIDs();
	std::sort(ids.begin(), ids.end());
	for (const std::string& id : ids) {
		const std::string format = service_config_->GetDatabaseConfig(id)->GetFormatVersion();
		query += (NoexceptFormat("&db_list[%s]=%s") % id % format).str();
	}
	return query;
}

} // namespace tarn::dataupdate
