/** @file What becomes of the record of all installed files when an operation has changed some of them. */
#ifndef HOST_LIBRARY_FILE_CHANGES_H
#define HOST_LIBRARY_FILE_CHANGES_H

#include "dataupdate/file_list.h"
#include "dataupdate/installation.h"
#include "host/library/installed_files.h"

#include <functional>
#include <optional>
#include <string>

namespace tarn::ctl {

/** Visits everything below a directory but directories, by relative names, in no order; links are not followed. */
void ForEachFileBelow(const std::string& directory, const std::function<void(const std::string& name)>& visit);

/** The identities of all these: what changes whenever a file is written or replaced. Nothing of a missing directory. */
dataupdate::FileList IdentitiesBelow(const std::string& directory);

/**
 * The record of an installation that the library lists whole.
 *
 * @param are_fresh  whether the files have just been put there, so that their sizes are those of the digests
 */
InstalledFiles WholeRecord(
    const dataupdate::InstalledRecord& listed, const std::string& install_prefix, bool are_fresh);
/** Gives the list up, and frees it while the record is made. */
InstalledFiles WholeRecord(dataupdate::InstalledRecord&& listed, const std::string& install_prefix, bool are_fresh);

/**
 * The record after diff packages.
 *
 * @param changed  what they replaced, created or deleted, with digests of what is on this device; without a digest what
 *                 is gone
 */
InstalledFiles CarryThroughDiff(
    InstalledFiles before, const dataupdate::InstalledRecord& changed, const std::string& install_prefix);

/**
 * The record after a package was unpacked over what was there, which tells nobody what it changed. What has another
 * identity since then is recorded as it is; everything else keeps its entry, so that damage from before is still found,
 * and what was unknown stays unknown.
 */
InstalledFiles CarryThroughForced(
    InstalledFiles before, dataupdate::FileList identities, int data_version, const std::string& install_prefix);

/** The record of all files if there is one to believe, or if the library's own is one. */
std::optional<InstalledFiles> KnownFiles(
    const std::string& id, const dataupdate::InstalledRecord& listed, const std::string& install_prefix);

/**
 * A record in the place of a lost one: of a full package by the library's list, else of the files as they are, but for
 * those that the library lists. Reads every file in the latter case.
 */
InstalledFiles RebuiltRecord(const dataupdate::InstalledRecord& listed, const std::string& install_prefix);

} // namespace tarn::ctl

#endif
