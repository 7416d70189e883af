/**
 * @file
 * Every fixed path that the library, its hosts, readers and administrators agree on.
 *
 * The functions only make text: they look at no file, throw nothing but std::bad_alloc, and may be called from any
 * thread. A database's id goes into the path as it is.
 */
#ifndef DATAUPDATE_PATHS_H
#define DATAUPDATE_PATHS_H

#include "dataupdate/export.h"

#include <string>

namespace tarn::dataupdate {

constexpr char kServiceDefaults[] = "/usr/share/data_update/data_update.conf"; ///< The service's settings as shipped.
constexpr char kServiceOverride[] = "/usr/tarn/etc/data_update/data_update.conf"; ///< The service's settings as set.
constexpr char kDatabaseDefaults[] = "/usr/share/data_update/databases.conf"; ///< The databases' settings as shipped.
constexpr char kDatabaseOverride[] = "/usr/tarn/etc/data_update/databases.conf"; ///< The databases' settings as set.

constexpr char kLockDirectory[] = "/run/data_update";                 ///< Holds every lock file; empty after a restart.
constexpr char kConfigLock[] = "/run/data_update/config.lock";        ///< Held while a setting is written.
constexpr char kFreshInfoLock[] = "/run/data_update/fresh_info.lock"; ///< Held while the server's document is fetched.
constexpr char kUpdateAnyLock[] = "/run/data_update/update_any.lock"; ///< Held while any database is updated.

constexpr char kCacheDirectory[] = "/var/cache/data_update";                   ///< Holds the server's document.
constexpr char kCachedInfo[] = "/var/cache/data_update/database_info.json";    ///< The server's document.
constexpr char kFetchMark[] = "/var/cache/data_update/database_info.fetching"; ///< Exists while it is downloaded.

/** The lock file of one database's updates. */
[[nodiscard]] TARNDBUD_EXPORT std::string UpdateLockPath(const std::string& id);
/** The lock file that readers of a database share, and that is locked exclusively while its files are replaced. */
[[nodiscard]] TARNDBUD_EXPORT std::string UsingLockPath(const std::string& id);
/** A file in a database's state directory, "/var/lib/data_update/<id>/<name>". */
[[nodiscard]] TARNDBUD_EXPORT std::string StatePath(const std::string& id, const std::string& name);
/** The record of what is installed; read and written by installation.h. */
[[nodiscard]] TARNDBUD_EXPORT std::string StatusPath(const std::string& id);
/** Exists beside the record while that may not describe the installed files; read and written by installation.h. */
[[nodiscard]] TARNDBUD_EXPORT std::string ReplacementMarkPath(const std::string& id);
/** The directory of the databases on a volume. */
[[nodiscard]] TARNDBUD_EXPORT std::string MainDirPath(const std::string& volume);
/** The directory of temporary data on a volume. */
[[nodiscard]] TARNDBUD_EXPORT std::string TempDirPath(const std::string& volume);

} // namespace tarn::dataupdate

#endif
