#include "host/library/checked_info_getter.h"

#include "base/document_limit.h"
#include "dataupdate/messages.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "host/library/document_problem.h"
#include "host/library/failure.h"
#include "host/library/package_size.h"
#include "host/library/services.h"

#include <json/value.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <utility>

// An appliance's own platform may lack what guards downloads on stock Linux.
#pragma weak TLIBCDownloadLimiterSet

namespace tarn::ctl {

using dataupdate::UpdateError;

namespace {

constexpr std::uint64_t kAnnouncedMargin = 65536;
constexpr unsigned int kDocumentSeconds = 300;
constexpr unsigned int kHurrySeconds = 10;

constexpr std::size_t kBeginningBytes = 256;

std::string ReadBeginning(const std::string& path) {
	std::ifstream file(path, std::ios::binary);
	std::string beginning(kBeginningBytes, '\0');
	file.read(beginning.data(), static_cast<std::streamsize>(beginning.size()));
	beginning.resize(static_cast<std::size_t>(file.gcount()));
	return beginning;
}

/** One fetched while the clock was ahead would be used until then, and nothing would be updated meanwhile. */
bool IsFromTheFuture() {
	struct stat status {};
	return stat(dataupdate::kCachedInfo, &status) == 0 && status.st_mtime > std::time(nullptr);
}

/** Whether there was a document to drop. */
bool DropDocument() {
	if (unlink(dataupdate::kCachedInfo) == 0) {
		return true;
	}
	if (errno == ENOENT) {
		return false;
	}
	throw CommandError(
	    kFailed, std::string(dataupdate::kCachedInfo) + " cannot be removed (" + std::strerror(errno) + ")");
}

} // namespace

void DownloadLimits::Announce(const std::string& link, std::int64_t bytes) {
	if (bytes > 0) {
		std::uint64_t& largest = announced_[link];
		largest = std::max(largest, static_cast<std::uint64_t>(bytes) + kAnnouncedMargin);
	}
}

TLIBCDownloadLimits DownloadLimits::For(const std::string& url, const std::string& file) const {
	TLIBCDownloadLimits limits = {};
	if (file == dataupdate::kCachedInfo) {
		limits.largest_bytes = kLargestDocument;
		limits.largest_is = "a document may be";
		limits.seconds = hurry_ ? kHurrySeconds : kDocumentSeconds;
	} else if (file == kNoFile) {
		limits.seconds = kHurrySeconds;
	} else if (const auto allowed = allowed_.find(url); allowed != allowed_.end()) {
		limits.largest_bytes = allowed->second;
		limits.largest_is = "allowed";
	} else if (const auto announced = announced_.find(url); announced != announced_.end()) {
		limits.largest_bytes = announced->second;
		limits.largest_is = "announced";
	}
	return limits;
}

void LimitDownloads(const std::shared_ptr<DownloadLimits>& limits) {
	if (TLIBCDownloadLimiterSet == nullptr) {
		return;
	}
	static std::shared_ptr<DownloadLimits> used;
	const auto tell = [](const char* url, const char* file, TLIBCDownloadLimits* result, void* data) {
		*result = static_cast<const DownloadLimits*>(data)->For(url, file);
	};
	TLIBCDownloadLimiterSet(tell, limits.get());
	used = limits; // Only now nobody asks the ones before.
}

CheckedInfoGetter::CheckedInfoGetter(std::shared_ptr<dataupdate::IOUtils> io,
    std::shared_ptr<dataupdate::ServiceConfig> service_config, std::shared_ptr<DownloadLimits> limits)
    : InfoGetter(io, std::move(service_config)), io_(std::move(io)), limits_(std::move(limits)) {}

void CheckedInfoGetter::Hurry() {
	lock_seconds_ = kMomentSeconds;
	limits_->Hurry();
}

/** Reads a part of the document; when that fails for the document's content, tells what is wrong in it. */
template<typename Read>
auto CheckedInfoGetter::ReadEntry(
    const std::string& id, Read read, bool (*has_plain_versions)(const Json::Value& entry)) const {
	const Json::Value document = GetDatabaseInfo();
	try {
		auto result = read();
		if (has_plain_versions(document["db_list"][id])) {
			return result;
		}
	} catch (const UpdateError& error) {
		if (CategoryOf(error.what()) != Category::kInvalidRecord) {
			throw;
		}
	} catch (const Json::Exception&) {
		// Described below, like the next.
	} catch (const std::logic_error&) {
		// A version that is no number.
	}
	throw UpdateError("The document of " + Link() + " " + DescribeDocument(document, id) + DescribeUse());
}

dataupdate::RemoteInfo CheckedInfoGetter::GetRemoteInfo(const std::string& id) const {
	return ReadEntry(
	    id, [&] { return InfoGetter::GetRemoteInfo(id); }, HasPlainVersion);
}

std::map<int, dataupdate::DiffInfo> CheckedInfoGetter::GetDiffInfos(const std::string& id) const {
	auto diffs = ReadEntry(
	    id, [&] { return InfoGetter::GetDiffInfos(id); }, HasPlainDiffVersions);
	for (const auto& [version, diff] : diffs) {
		limits_->Announce(diff.download_link, diff.file_size);
	}
	return diffs;
}

dataupdate::DatabaseStatus CheckedInfoGetter::GetDatabaseStatus(const std::string& id) const {
	std::string reason;
	try {
		return InfoGetter::GetDatabaseStatus(id);
	} catch (const Json::Exception&) {
		reason = "something else stands where an object should be";
	} catch (const std::logic_error&) {
		reason = "its \"data_version\" is no number";
	}
	throw UpdateError("The record of what is installed, " + dataupdate::StatusPath(id) + ", is malformed (" + reason +
	                  "); remove it to have the database installed again");
}

dataupdate::InstalledRecord CheckedInfoGetter::GetRecord(const std::string& id) const {
	std::optional<dataupdate::InstalledRecord> record = dataupdate::ReadLargeRecord(id);
	// What is missing, malformed, being written or in another program's form is told by the general way.
	return record ? std::move(*record) : GetDatabaseStatus(id);
}

Json::Value CheckedInfoGetter::GetDatabaseInfo() const {
	if (failure_) {
		std::rethrow_exception(failure_);
	}
	const std::string stamp = CacheStamp();
	if (!document_ || stamp_ != stamp) {
		try {
			document_ = FetchDatabaseInfo();
			// One that was renewed in between, by this fetch or by somebody after it, may not be the one at hand.
			stamp_ = CacheStamp() == stamp ? std::optional(stamp) : std::nullopt;
		} catch (...) {
			failure_ = std::current_exception();
			throw;
		}
	}
	return *document_;
}

Json::Value CheckedInfoGetter::FetchDatabaseInfo() const {
	try {
		if (IsFromTheFuture()) {
			const dataupdate::FileLock lock(dataupdate::kFreshInfoLock, lock_seconds_);
			DropDocument();
		}
		return dataupdate::GetFreshInfo(
		    *io_, [this] { return GetDatabaseUrl(); }, lock_seconds_);
	} catch (const UpdateError& error) {
		if (lock_seconds_ != dataupdate::kLockTimeout && CategoryOf(error.what()) == Category::kLocked) {
			throw UpdateError("The server's document is being fetched by another command and has not arrived yet; try "
			                  "later");
		}
		if (error.what() != std::string(dataupdate::messages::kCannotDecode) + dataupdate::kCachedInfo) {
			throw;
		}
	}
	const CachedPage page = {Link(), ReadBeginning(dataupdate::kCachedInfo), io_->GetSize(dataupdate::kCachedInfo)};
	throw UpdateError(DescribePage(page) + DescribeUse());
}

std::string CheckedInfoGetter::CacheStamp() const {
	struct stat status {};
	if (stat(dataupdate::kCachedInfo, &status) != 0) {
		return "";
	}
	const bool is_old = std::time(nullptr) - status.st_mtime > dataupdate::kFreshInfoSeconds;
	return std::to_string(status.st_ino) + " " + std::to_string(status.st_mtim.tv_sec) + " " +
	       std::to_string(status.st_mtim.tv_nsec) + (is_old ? " old" : "");
}

std::string CheckedInfoGetter::DescribeUse() const {
	struct stat status {};
	return stat(dataupdate::kCachedInfo, &status) == 0 ? DescribeCaching(status.st_mtime, std::time(nullptr)) : "";
}

std::string CheckedInfoGetter::Link() const {
	try {
		return GetDatabaseUrl();
	} catch (const UpdateError&) {
		return "the update server";
	}
}

bool DropCachedDocument() {
	try {
		// Whoever is fetching the document is about to read it.
		const dataupdate::FileLock lock(dataupdate::kFreshInfoLock, kMomentSeconds);
		return DropDocument();
	} catch (const dataupdate::UpdateError& error) {
		if (CategoryOf(error.what()) != Category::kLocked) {
			throw;
		}
	}
	throw CommandError(kLocked, "The server's document is being fetched at this moment, so it was not dropped; try "
	                            "again when that has ended");
}

} // namespace tarn::ctl
