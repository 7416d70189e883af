/** @file The server's document, checked before it is believed, and downloads narrowed to what it announces. */
#ifndef HOST_LIBRARY_CHECKED_INFO_GETTER_H
#define HOST_LIBRARY_CHECKED_INFO_GETTER_H

#include "dataupdate/file_lock.h"
#include "dataupdate/update.h"

#include <tarncore/tarncore.h>

#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace tarn::ctl {

/** Seconds that a command waits which only tells something or only drops it: for a document that is arriving. */
constexpr unsigned long kMomentSeconds = 5;

/**
 * The limits of single downloads: a document is small and comes soon, and a diff package is as large as announced, give
 * or take 64 KiB. For everything else the settings of downloads and the free space are the only limits. To be used by
 * the thread that downloads.
 */
class DownloadLimits {
public:
	/** Of several sizes of one link the largest counts; a size that is not above 0 announces nothing. */
	void Announce(const std::string& link, std::int64_t bytes);
	/** Allows a link's file no more bytes than these. */
	void Restrict(const std::string& link, std::uint64_t bytes) { allowed_[link] = bytes; }
	/** From now on a document has to come within 10 seconds. */
	void Hurry() { hurry_ = true; }
	TLIBCDownloadLimits For(const std::string& url, const std::string& file) const;

private:
	std::map<std::string, std::uint64_t> announced_;
	std::map<std::string, std::uint64_t> allowed_;
	bool hurry_ = false;
};

/** Has the platform obey these limits from now on. A platform that knows no limits of downloads obeys its own rules. */
void LimitDownloads(const std::shared_ptr<DownloadLimits>& limits);

/**
 * Turns whatever a malformed document raises into an UpdateError that names the server's link or the file. A version
 * that is not written in digits alone is refused as well, though the library would read what it begins with. The
 * server's document is kept for as long as the cached file is used, and nobody drops or renews it, and the failure to
 * get it for the object's life, so that a short run makes one request; an older document could bring an older version
 * back. A cached document that is dated in the future is fetched again. Not for use by several threads at once.
 */
class CheckedInfoGetter : public dataupdate::InfoGetter {
public:
	/** @param limits  learns what the server announces */
	CheckedInfoGetter(std::shared_ptr<dataupdate::IOUtils> io,
	    std::shared_ptr<dataupdate::ServiceConfig> service_config,
	    std::shared_ptr<DownloadLimits> limits = std::make_shared<DownloadLimits>());

	/** Neither waits long for a document that another process fetches nor for the server, from now on. */
	void Hurry();

	dataupdate::RemoteInfo GetRemoteInfo(const std::string& id) const override;
	std::map<int, dataupdate::DiffInfo> GetDiffInfos(const std::string& id) const override;
	dataupdate::DatabaseStatus GetDatabaseStatus(const std::string& id) const override;
	/** The same in little memory. */
	dataupdate::InstalledRecord GetRecord(const std::string& id) const;
	Json::Value GetDatabaseInfo() const override;

protected:
	/** The document from the server or the cache, kept by GetDatabaseInfo(). */
	virtual Json::Value FetchDatabaseInfo() const;
	/** What changes whenever somebody drops or renews the cached document, and when it gets too old to be used. */
	virtual std::string CacheStamp() const;
	/** How long the document at hand is going to be used, as an addition to a sentence. */
	virtual std::string DescribeUse() const;

private:
	template<typename Read>
	auto ReadEntry(const std::string& id, Read read, bool (*has_plain_versions)(const Json::Value& entry)) const;
	std::string Link() const;

	std::shared_ptr<dataupdate::IOUtils> io_;
	std::shared_ptr<DownloadLimits> limits_;
	unsigned long lock_seconds_ = dataupdate::kLockTimeout;
	mutable std::optional<Json::Value> document_;
	mutable std::optional<std::string> stamp_; ///< None: the document is read again.
	mutable std::exception_ptr failure_;
};

/**
 * Removes the copy of the server's document that is used for an hour, so that the next command asks the server.
 *
 * @return whether there was a copy
 * @throws CommandError when the copy cannot be removed, with kLocked while somebody fetches the document
 */
bool DropCachedDocument();

} // namespace tarn::ctl

#endif
