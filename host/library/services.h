/** @file What commands work with: the platform and the library, the readers' lock, and visits to each database. */
#ifndef HOST_LIBRARY_SERVICES_H
#define HOST_LIBRARY_SERVICES_H

#include "dataupdate/installation.h"
#include "dataupdate/project_lock.h"
#include "dataupdate/service_config.h"
#include "dataupdate/update.h"
#include "dataupdate/updater.h"
#include "dataupdate/utils.h"
#include "host/library/budget.h"
#include "host/library/failure.h"
#include "host/library/next_run.h"
#include "host/terminal/terminal.h"

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarn::ctl {

/** Holds off a replacement of a database's files from construction to destruction, through the library's C interface.
 */
class ReaderLock {
public:
	/** Throws CommandError with 75 when the database is still being replaced after so many seconds. */
	ReaderLock(const std::string& id, unsigned long timeout_seconds);
	~ReaderLock();
	ReaderLock(const ReaderLock&) = delete;
	ReaderLock& operator=(const ReaderLock&) = delete;

	/** False when there is no lock file: nothing was replaced since the system started. */
	bool Held() const { return fd_ >= 0; }

private:
	int fd_;
};

/** Makes a database's lock file, which a restart takes away; whether it is there afterwards. */
[[nodiscard]] bool MakeReaderLockFile(const std::string& id);

/**
 * Treats a server's document that is too large like one that cannot be decoded. Records, and
 * settings that other programs than ours write, are written in place, and are no documents for a moment; they are read
 * again until they are, as long as their last change is new.
 */
class CheckedIO : public dataupdate::IOUtils {
public:
	Json::Value ReadJson(const std::string& path) const override;
	/**
	 * Replaces the file by a whole one, which is on the disk when this returns: a loss of power leaves the old content
	 * or the new. Throws the errors of IOUtils, and "Fail to write: <path>" also when the disk is full.
	 */
	void WriteJson(const std::string& path, const Json::Value& value) const override;
};

/** Whether a file's last change lies less than two seconds from now: longer than a writer takes from its first byte to
 * its last, and short for a file that was cut off for good. */
bool IsNew(const timespec& changed, const timespec& now);

struct Services {
	std::shared_ptr<dataupdate::IOUtils> io;
	std::shared_ptr<dataupdate::ServiceConfig> config;
	std::shared_ptr<dataupdate::InfoGetter> info;
	/** Updater::UpdateAndTell(). */
	std::function<dataupdate::UpdateResult(const std::string& id, const dataupdate::DatabaseStatus& status,
	    const dataupdate::RemoteInfo& remote, const std::map<int, dataupdate::DiffInfo>& diffs,
	    const std::string& volume, const std::string& install_prefix, const std::string& root_directory,
	    const dataupdate::UpdateAdvice& advice)>
	    update;
	std::shared_ptr<dataupdate::Checker> checker;
	Terminal& terminal;
	/** Whether a volume is mounted and answers; if not, TLIBCErrGet() tells why. */
	std::function<bool(const std::string& volume)> is_available;
	/** Has the server's document come at once or not at all from now on; nothing to call in a double. */
	std::function<void()> hurry = nullptr;
	/** Read and write the library's record without a map of all files; in doubles nothing: info does it for them. */
	std::function<dataupdate::InstalledRecord(const std::string& id)> read_record = nullptr;
	std::function<void(const std::string& id, const dataupdate::InstalledRecord& record)> write_record = nullptr;
	/** FindPreparedReplacement() and FinishReplacement(); in doubles nothing is ever prepared. */
	std::function<std::optional<int>(
	    const std::string& id, const std::string& volume, const std::string& install_prefix)>
	    find_prepared = nullptr;
	std::function<dataupdate::UpdateResult(
	    const std::string& id, const std::string& volume, const std::string& install_prefix)>
	    finish = nullptr;
	/** What scheduled updates may download; in doubles nothing, and then anything. */
	std::function<Budget()> scheduled_budget = nullptr;
	/** Asks the server how large a package is; no value when it does not tell, and in doubles nothing. */
	std::function<std::optional<std::uint64_t>(const std::string& link)> package_size = nullptr;
	/** Has the download of a package end when it gets larger than so; in doubles nothing. */
	std::function<void(const std::string& link, std::uint64_t bytes)> restrict_download = nullptr;
	/** When scheduled databases are updated next; nothing to call in a double. */
	std::function<std::optional<NextRun>()> next_run = nullptr;
};

/** What InfoGetter::GetDatabaseStatus() says, in little memory: what was installed, wherever that is. */
[[nodiscard]] dataupdate::InstalledRecord ReadRecorded(const Services& services, const std::string& id);
/** The same of what is installed where the settings have the database; nothing, version -1, if it is elsewhere. */
[[nodiscard]] dataupdate::InstalledRecord ReadInstalled(const Services& services, const std::string& id);
/** Does what InfoGetter::SetDatabaseStatus() does. */
void WriteInstalled(const Services& services, const std::string& id, const dataupdate::InstalledRecord& record);

/** No value while files are being replaced: they come and go, and their sum would be of no version. */
[[nodiscard]] std::optional<std::uintmax_t> InstalledBytes(
    const Services& services, const std::string& id, const std::string& directory);

/** The real ones. */
Services MakeServices(Terminal& terminal);

using DatabaseOperation = std::function<ExitCode(const std::string& id)>;

/**
 * Runs an operation on each database. When it fails on one, that is told on the error stream, and the others are tried
 * all the same, unless the program has been asked to end.
 *
 * @param note  learns of each failure as well
 * @return the code of the first that didn't end with kDone
 */
[[nodiscard]] ExitCode ForEachDatabase(const Services& services, const std::vector<std::string>& ids,
    const DatabaseOperation& operation,
    const std::function<void(const std::string& id, const Failure& failure)>& note = {});

} // namespace tarn::ctl

#endif
