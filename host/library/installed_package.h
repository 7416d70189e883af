/** @file When the installed data was published, as its signed package says; kept beside the library's record. */
#ifndef HOST_LIBRARY_INSTALLED_PACKAGE_H
#define HOST_LIBRARY_INSTALLED_PACKAGE_H

#include "host/library/opened_packages.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tarn::ctl {

/** Where a database's record lies. */
std::string InstalledPackagePath(const std::string& id);

/**
 * Drops the record, to be called before the library's record changes: a run that is killed in between leaves a database
 * whose age is unknown, and never one with the age of other data. Throws CommandError naming the path.
 */
void ForgetInstalledPackage(const std::string& id);

/**
 * Records what was installed, to be called when the library's record has changed. A package that does not tell when it
 * was published leaves no record. A record that cannot be written is told to the system log only.
 */
void RecordInstalledPackage(const std::string& id, const OpenedPackage& package);

/**
 * When the installed data was published, in seconds since 1970; no value when that is unknown.
 *
 * @param installed_version  from the library's record: a record of another version is one of earlier data
 */
std::optional<int64_t> PublicationTime(const std::string& id, int installed_version);

} // namespace tarn::ctl

#endif
