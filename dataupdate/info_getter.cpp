#include "file_lock.h"
#include "log.h"
#include "paths.h"
#include "update.h"
#include "update_error.h"

#include <tarncore/tarncore.h>
#include <tarncrypto/tarncrypto.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace tarn::dataupdate {

namespace {

constexpr char kLogSource[] = "update";
constexpr int kCacheSeconds = 3600;
constexpr int kHardwareIdBytes = 16;

struct HardwareIdCloser {
	void operator()(tarncrypto_hwid* context) const { tarncrypto_hwid_free(context); }
};

/**
 * The client dates a file as the server does: an old document would never count as cached, and one that is dated in the
 * future would never be asked for again. A failure leaves it at that.
 */
void StartAge(const char* path) {
	utimensat(AT_FDCWD, path, nullptr, 0);
}

/**
 * Stands while the document is being fetched: what a killed fetch leaves is no document, however new its file is. It
 * needs no more care than that: without it, as before the first fetch, the age alone decides.
 */
void MarkFetch() {
	const int fd = open(kFetchMark, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
	if (fd >= 0) {
		close(fd);
	}
}

bool IsFetchUnfinished() {
	return access(kFetchMark, F_OK) == 0;
}

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
	io_->TarnMkdir(kCacheDirectory);
	try {
		const FileLock lock(kFreshInfoLock, kLockTimeout);
		if (TLIBCFileExist(kCachedInfo) == 0 || IsFetchUnfinished() ||
		    io_->FileCreateOver(kCachedInfo, kCacheSeconds)) {
			MarkFetch();
			io_->Download(kCachedInfo, GetDatabaseUrl());
			StartAge(kCachedInfo);
			unlink(kFetchMark);
		}
		return io_->ReadJson(kCachedInfo);
	} catch (const UpdateError& error) {
		TARN_LOG(LOG_INFO, "Fail during fresh database info");
		TARN_LOG(LOG_INFO, "Error message: %s", error.what());
		throw;
	}
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
