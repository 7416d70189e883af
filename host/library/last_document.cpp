#include "host/library/last_document.h"

#include "dataupdate/file_lock.h"
#include "dataupdate/paths.h"
#include "dataupdate/update.h"
#include "dataupdate/update_error.h"
#include "host/library/document_problem.h"

#include <sys/stat.h>

#include <exception>

namespace tarn::ctl {

std::optional<LastDocument> ReadLastDocument(const dataupdate::IOUtils& io, unsigned long patience) {
	try {
		const dataupdate::FileLock lock(dataupdate::kFreshInfoLock, patience);
		struct stat status {};
		if (stat(dataupdate::kCachedInfo, &status) != 0) {
			return std::nullopt;
		}
		return LastDocument{io.ReadJson(dataupdate::kCachedInfo), status.st_mtime};
	} catch (const dataupdate::UpdateError&) {
		return std::nullopt;
	}
}

std::optional<int> OfferedVersion(const LastDocument& document, const std::string& id) {
	try {
		Json::Value entry = document.content["db_list"][id];
		// Only the version matters here, and whether the entry counts as one.
		entry["deprecated"] = false;
		if (!HasPlainVersion(entry)) {
			return std::nullopt;
		}
		return dataupdate::RemoteInfo::FromJson(entry).data_version;
	} catch (const std::exception&) {
		return std::nullopt;
	}
}

} // namespace tarn::ctl
