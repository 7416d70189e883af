/**
 * @file
 * Every fixed place where the library reads or writes.
 */
#ifndef DATAUPDATE_INTERNAL_PATHS_H
#define DATAUPDATE_INTERNAL_PATHS_H

#include <string>

namespace tarn::dataupdate {

constexpr char kServiceDefaults[] = "/usr/share/data_update/data_update.conf";
constexpr char kServiceOverride[] = "/usr/tarn/etc/data_update/data_update.conf";
constexpr char kDatabaseDefaults[] = "/usr/share/data_update/databases.conf";
constexpr char kDatabaseOverride[] = "/usr/tarn/etc/data_update/databases.conf";

constexpr char kConfigLock[] = "/run/data_update/config.lock";
constexpr char kFreshInfoLock[] = "/run/data_update/fresh_info.lock";
constexpr char kUpdateAnyLock[] = "/run/data_update/update_any.lock";

constexpr char kCacheDirectory[] = "/var/cache/data_update";
constexpr char kCachedInfo[] = "/var/cache/data_update/database_info.json";
constexpr char kFetchMark[] = "/var/cache/data_update/database_info.fetching";

/** Seconds that the library waits for every lock of its own. */
constexpr unsigned long kLockTimeout = 600;

/** Held while a database is updated. */
std::string UpdateLockPath(const std::string& id);
/** Held while a database's files are replaced; readers share it. */
std::string UsingLockPath(const std::string& id);
/** The record of what is installed. */
std::string StatusPath(const std::string& id);
/** Stands beside the record while it may not describe the installed files. */
std::string ReplacementMarkPath(const std::string& id);
/** Where the databases of a volume lie. */
std::string MainDirPath(const std::string& volume);
/** The temporary area below a volume. */
std::string TempDirPath(const std::string& base);
/** A name of a project's own in the temporary area: "<area>/<id>_<suffix>". */
std::string TempPath(const std::string& base, const std::string& id, const std::string& suffix);

/** Joins as a path does that an absolute right side replaces; the key of an installed file may be absolute. */
std::string JoinPath(const std::string& root, const std::string& path);

} // namespace tarn::dataupdate

#endif
