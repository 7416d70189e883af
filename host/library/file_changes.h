/** @file What becomes of the record of all installed files when an operation has changed some of them. */
#ifndef HOST_LIBRARY_FILE_CHANGES_H
#define HOST_LIBRARY_FILE_CHANGES_H

#include "host/library/installed_files.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tarn::ctl {

/** The names of everything below a directory but directories, links not followed; none when it does not exist. */
std::set<std::string> FilesBelow(const std::string& directory);

/** What changes whenever a file is written or replaced: device, inode, size, and the times of both kinds of change. */
using FileIdentity = std::vector<std::int64_t>;

/** The identities of everything that FilesBelow() names. */
std::map<std::string, FileIdentity> IdentitiesBelow(const std::string& directory);

/**
 * The record of an installation that the library lists whole.
 *
 * @param are_fresh  whether the files have just been put there, so that their sizes are those of the digests
 */
InstalledFiles WholeRecord(const dataupdate::DatabaseStatus& status, const std::string& install_prefix, bool are_fresh);

/**
 * The record after diff packages.
 *
 * @param changed  what they replaced, created or deleted; of these, what the new state does not list is gone
 * @param status   the new state, with digests made from what is on this device
 */
InstalledFiles CarryThroughDiff(InstalledFiles before, const std::set<std::string>& changed,
    const dataupdate::DatabaseStatus& status, const std::string& install_prefix);

/**
 * The record after a package was unpacked over what was there, which tells nobody what it changed. What has another
 * identity since then is recorded as it is; everything else keeps its entry, so that damage from before is still found,
 * and what was unknown stays unknown.
 */
InstalledFiles CarryThroughForced(InstalledFiles before, const std::map<std::string, FileIdentity>& identities,
    int data_version, const std::string& install_prefix);

/** The record of all files if there is one to believe, or if the library's own is one. */
std::optional<InstalledFiles> KnownFiles(
    const std::string& id, const dataupdate::DatabaseStatus& status, const std::string& install_prefix);

/**
 * A record in the place of a lost one: of a full package by the library's list, else of the files as they are, but for
 * those that the library lists. Reads every file in the latter case.
 */
InstalledFiles RebuiltRecord(const dataupdate::DatabaseStatus& status, const std::string& install_prefix);

} // namespace tarn::ctl

#endif
