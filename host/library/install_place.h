/** @file Where the recorded version of a database was installed, which the settings may have left since. */
#ifndef HOST_LIBRARY_INSTALL_PLACE_H
#define HOST_LIBRARY_INSTALL_PLACE_H

#include "dataupdate/installation.h"
#include "host/library/services.h"

#include <functional>
#include <optional>
#include <string>

namespace tarn::ctl {

/** The record of the directory, "installed_in.json" beside the library's record. */
[[nodiscard]] std::string InstallPlacePath(const std::string& id);

/**
 * Records the directory durably. To be called before the library records a new state, while the mark of the
 * replacement stands: a process that is killed in between leaves the mark. Throws when the record cannot be written.
 */
void RecordInstallPlace(const std::string& id, const std::string& directory);

/** Has the record name another directory, when there is a record and the function gives one. */
void MoveInstallPlace(const std::string& id, const std::function<std::string(const std::string& directory)>& move);

/**
 * The directory of the recorded version when it is another one than the settings name; such a database counts as not
 * installed. Without a record of the directory the absolute names among the recorded files tell it. None when it is
 * the same one, when nothing tells it, and while the database has no directory for want of a volume.
 */
[[nodiscard]] std::optional<std::string> FindOldPlace(
    const Services& services, const std::string& id, const dataupdate::InstalledRecord& recorded);

/** The same, where the record of the installed files may be too large to be read without need. */
[[nodiscard]] std::optional<std::string> FindOldPlace(const Services& services, const std::string& id);

/** Logs that a database is in another directory now, if it was in one before. */
void LogLeftBehind(const std::string& id, const std::optional<std::string>& old_place, const std::string& directory);

/** A sentence without its end: both directories, for people. */
[[nodiscard]] std::string DescribeOldPlace(
    const Services& services, const std::string& id, const std::string& old_place);

} // namespace tarn::ctl

#endif
