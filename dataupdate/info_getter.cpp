#include "base/file_io.h"
#include "base/handle.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/internal/log.h"
#include "dataupdate/paths.h"
#include "dataupdate/update.h"
#include "dataupdate/update_error.h"

#include <tarncore/tarncore.h>
#include <tarncrypto/tarncrypto.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace tarn::dataupdate {

namespace {

// Part of the front whose lines are known by this name.
constexpr char kLogSource[] = "update";
constexpr int kHardwareIdBytes = 16;

std::string HardwareId() {
	const Handle<tarncrypto_hwid, tarncrypto_hwid_free> context(tarncrypto_hwid_init());
	if (!context || !tarncrypto_hwid_str(context.get(), kHardwareIdBytes)) {
		syslog(LOG_ERR, "Failed to init hwid context");
		return "";
	}
	return context->str;
}

/**
 * Sets a mark for the time of a download: what a killed download leaves is no document, however new its file is. The
 * mark is not synced, because it comes to the disk before the file that is changed after it, and what is older than
 * both is the document of before.
 */
void MarkFetch() {
	const UniqueFd mark(open(kFetchMark, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
}

bool IsFetchUnfinished() {
	return access(kFetchMark, F_OK) == 0;
}

/**
 * Removes the mark after every download that ends, so that the mark tells only of a process that was killed, or of a
 * document that could not be brought to the disk.
 */
void Fetch(const IOUtils& io, const std::string& url) {
	if (IsFetchUnfinished()) {
		unlink(kCachedInfo); // Else it would be used once the mark is gone, if this download does not begin.
	}
	MarkFetch();
	try {
		io.Download(kCachedInfo, url);
	} catch (const UpdateError&) {
		unlink(kFetchMark);
		throw;
	}
	// The client dates a file as the server does: an old document would be downloaded every time, and a document dated
	// in the future never again. A failure leaves the server's date.
	utimensat(AT_FDCWD, kCachedInfo, nullptr, 0);
	if (SyncFile(kCachedInfo)) { // So that a loss of power leaves no empty file that is taken for the document.
		unlink(kFetchMark);
	}
}

/** Downloads the document unless the cached copy may be used; to be called under the document's lock. */
void RenewCachedInfo(const IOUtils& io, const std::function<std::string()>& make_url) {
	if (TLIBCFileExist(kCachedInfo) == 0 || IsFetchUnfinished() || io.FileCreateOver(kCachedInfo, kFreshInfoSeconds)) {
		Fetch(io, make_url());
	}
}

} // namespace

Json::Value GetFreshInfo(const IOUtils& io, const std::function<std::string()>& make_url, unsigned long lock_seconds) {
	io.TarnMkdir(kCacheDirectory);
	try {
		const FileLock lock(kFreshInfoLock, lock_seconds);
		RenewCachedInfo(io, make_url);
		return io.ReadJson(kCachedInfo);
	} catch (const UpdateError& error) {
		TARN_LOG(LOG_INFO, "Fail during fresh database info");
		TARN_LOG(LOG_INFO, "Error message: %s", error.what());
		throw;
	}
}

RecordTaker::~RecordTaker() = default;

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
		return ReadRecord(*io_, id);
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
	WriteRecord(*io_, id, status);
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
