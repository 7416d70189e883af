/**
 * @file
 * The operations that a host calls.
 *
 * A host makes one IOUtils, a Config over it, a ServiceConfig over that, then an InfoGetter, an Updater and an Update,
 * each held by std::shared_ptr; none does work in its constructor. It calls InitService() once when it starts. All
 * failures are UpdateError; what JsonCpp and the standard library throw about a malformed document passes through.
 */
#ifndef DATAUPDATE_UPDATE_H
#define DATAUPDATE_UPDATE_H

#include "dataupdate/export.h"
#include "dataupdate/installation.h"
#include "dataupdate/records.h"
#include "dataupdate/service_config.h"
#include "dataupdate/updater.h"
#include "dataupdate/utils.h"

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace tarn::dataupdate {

/** Seconds for which the cached document of the server is used, counted from its download. */
constexpr int kFreshInfoSeconds = 3600;

/**
 * The server's whole document: the cached one, kCachedInfo, when it is at most kFreshInfoSeconds old and its download
 * was not killed, else a new one. Both happen under kFreshInfoLock. Whoever holds that lock may be downloading, and the
 * cached document is then cut off.
 *
 * @param io            downloads and reads
 * @param make_url      gives the link; asked only before a download
 * @param lock_seconds  how long to wait for the lock
 *
 * Throws "Fail to create dir <path>", FileLock's errors, what make_url throws, and the errors of IOUtils::Download()
 * and IOUtils::ReadJson(). A failed download is not retried; it leaves no document, or the old one, which is as old as
 * before.
 */
[[nodiscard]] TARNDBUD_EXPORT Json::Value GetFreshInfo(
    const IOUtils& io, const std::function<std::string()>& make_url, unsigned long lock_seconds);

/** What the update server offers and what is installed. */
class TARNDBUD_EXPORT InfoGetter {
public:
	/** Shares both; touches nothing yet. */
	InfoGetter(std::shared_ptr<IOUtils> io, std::shared_ptr<ServiceConfig> service_config);
	virtual ~InfoGetter();

	/** The server's description of a database; the document's own "deprecated" is folded in. */
	virtual RemoteInfo GetRemoteInfo(const std::string& id) const;
	/** The server's diff packages for a database, keyed by the version that each produces. */
	virtual std::map<int, DiffInfo> GetDiffInfos(const std::string& id) const;
	/** The installed state; version -1 and no files when "version.json" is missing or unusable (logged). */
	virtual DatabaseStatus GetDatabaseStatus(const std::string& id) const;
	/** Records the installed state. */
	virtual void SetDatabaseStatus(const std::string& id, const DatabaseStatus& status) const;
	/** GetFreshInfo() by GetDatabaseUrl(), waiting up to kLockTimeout seconds for the lock. */
	virtual Json::Value GetDatabaseInfo() const;
	/** Where the document is downloaded from. */
	virtual std::string GetDatabaseUrl() const;
	/** "?os=orv&dlid=<device id>" and "&db_list[<id>]=<format version>" for each database in byte-wise order. */
	virtual std::string GetQueryString() const;

private:
	std::shared_ptr<IOUtils> io_;
	std::shared_ptr<ServiceConfig> service_config_;
};

/**
 * What an InfoGetter may be as well: then a record of all files is handed to it in little memory, in the place of
 * SetDatabaseStatus() with a map of them.
 */
class TARNDBUD_EXPORT RecordTaker {
public:
	RecordTaker() = default;
	RecordTaker(const RecordTaker&) = delete;
	RecordTaker& operator=(const RecordTaker&) = delete;
	virtual ~RecordTaker();

	/** Does what InfoGetter::SetDatabaseStatus() does. */
	virtual void TakeRecord(const std::string& id, InstalledRecord record) const = 0;
};

/**
 * Updates, repairs and force-installs databases. Each operation on one database holds
 * "/run/data_update/update_any.lock" and then "/run/data_update/update_<id>.lock", waiting up to 600 seconds for each,
 * so that one runs at a time on a device; "version.json" is written last, and not at all after a failure.
 *
 * From the first change of installed files until the new state has been recorded, a mark is beside the record
 * ("/var/lib/data_update/<id>/replacing") and requests to end early wait (interruption.h). A database that is found
 * marked is treated as version -1 without diff packages, because a killed run's mixture of versions must not be
 * patched. A mark that cannot be set is logged at LOG_ERR.
 */
class TARNDBUD_EXPORT Update {
public:
	/** Shares all three; touches nothing yet. */
	Update(std::shared_ptr<Updater> updater, std::shared_ptr<InfoGetter> info_getter,
	    std::shared_ptr<ServiceConfig> service_config);
	virtual ~Update();

	/**
	 * UpdateProject() for every scheduled database, in the configuration's order, while a volume is current. Stops at
	 * the first failure and throws "Fail on project '<id>': <why>".
	 */
	virtual void UpdateAllProjects() const;
	/** Installs the server's version if it is newer. Returns normally as well when no volume is current. */
	virtual void UpdateProject(const std::string& id) const;
	/** FixProject() for every scheduled database, as UpdateAllProjects() does. */
	virtual void FixAllProjects() const;
	/** Reinstalls the server's version if a recorded file is missing or changed, or nothing is installed. */
	virtual void FixProject(const std::string& id) const;
	/**
	 * Installs a data version over what is installed: a positive number is that version, 0 the server's, a negative
	 * number N the version N before the server's. The link is the server's with every occurrence of its version number
	 * rewritten, wherever in the link it is. The recorded file list is then empty. Errors are not logged; no hooks run.
	 */
	virtual void ForceInstall(const std::string& id, int version) const;

	/** The loop over the scheduled databases; an empty function raises std::bad_function_call. */
	void OperateAllProjects(std::function<void(const std::string&)> operation) const;

private:
	std::shared_ptr<Updater> updater_;
	std::shared_ptr<InfoGetter> info_getter_;
	std::shared_ptr<ServiceConfig> service_config_;
};

/**
 * The server's description changed to that of another version, as Update::ForceInstall() installs it: the link is the
 * server's with every occurrence of its version number rewritten, wherever in the link it is.
 *
 * @param remote   what the server offers
 * @param version  a positive number is that version, 0 the server's, a negative number N the version N before it
 */
[[nodiscard]] TARNDBUD_EXPORT RemoteInfo Retarget(RemoteInfo remote, int version);

/**
 * Settles the storage volume; to be called once when a host starts, before any update. Takes no lock but that on the
 * settings: hold FileLock(kUpdateAnyLock, kLockTimeout) meanwhile, or a volume may be adopted from which another
 * process moves the databases away. Release it before an update, which takes the same lock and would wait for you.
 */
TARNDBUD_EXPORT void InitService();

} // namespace tarn::dataupdate

#endif
