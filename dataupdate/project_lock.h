/**
 * @file
 * Coordination with updates: the lock that readers of a database hold, and whether an update is running.
 *
 * The two functions are the library's whole C interface; this header can be included from C.
 */
#ifndef DATAUPDATE_PROJECT_LOCK_H
#define DATAUPDATE_PROJECT_LOCK_H

#include "dataupdate/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Takes a shared lock on a database, so that its files are not replaced while it is held. An update that was killed in
 * the middle of replacing them has left files of two versions and no lock: until the next update has made them good,
 * the file "/var/lib/data_update/<project>/replacing" exists. A reader checks for it while it holds the lock.
 * Readers share it; an update waits for all of them, at most 600 seconds, and only while it replaces the files.
 *
 * @param project          database id
 * @param timeout_seconds  how long to wait for a running replacement; 0 tries once
 * @return a descriptor to pass to TARNDBUDReleaseFileLock(); -1 when the time was up; -2 when the database is not
 *         configured, the configuration cannot be read, or the lock file cannot be opened
 *
 * The lock file, "/run/data_update/using_<project>.lock", does not survive a restart. It is missing until "tarndbudctl
 * init" has made it, which it does for every installed database, or until the next replacement.
 *
 * The descriptor is closed on exec. JsonCpp's exceptions pass through for a configuration file that holds no object.
 */
TARNDBUD_EXPORT int TARNDBUDGetFileLock(const char* project, unsigned long timeout_seconds)
    __attribute__((warn_unused_result));

/** Releases what TARNDBUDGetFileLock() returned; negative values are ignored. */
TARNDBUD_EXPORT void TARNDBUDReleaseFileLock(int fd);

#ifdef __cplusplus
}

#include "dataupdate/service_config.h"

#include <memory>
#include <string>

namespace tarn::dataupdate {

/**
 * Tells whether an update is running, by trying the update's lock file for a moment. What cannot be tried, for want of
 * permissions for example, is treated as updating. The probe creates the lock file when it is missing. Any thread may
 * call a checker.
 */
class TARNDBUD_EXPORT Checker {
public:
	/** Shares the configuration; touches nothing yet. */
	explicit Checker(std::shared_ptr<ServiceConfig> service_config);
	virtual ~Checker();

	/** Whether this database is being updated. Throws UpdateError "Project <id> not supported". */
	[[nodiscard]] virtual bool IsUpdating(const std::string& id) const;
	/** Whether any database is being updated. */
	[[nodiscard]] virtual bool IsAnyUpdating() const;

private:
	std::shared_ptr<ServiceConfig> service_config_;
};

} // namespace tarn::dataupdate
#endif

#endif
