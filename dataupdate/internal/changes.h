/** @file Carrying out the changes that a chain of diff packages makes to a tree of files. */
#ifndef DATAUPDATE_INTERNAL_CHANGES_H
#define DATAUPDATE_INTERNAL_CHANGES_H

#include "dataupdate/strategy.h"

#include <map>
#include <string>

namespace tarn::dataupdate {

/** What is done to each file, by the shortest spelling of its name relative to the tree. */
using Changes = std::map<std::string, ModifyInfo>;

/** How a new file gets its place. */
enum class Placing {
	kExchange, ///< One rename, after which the old file lies where the new one was; what else happens if that fails.
	kLink,     ///< A second name, so that the new file stays where it is as well.
};

/**
 * Removes or replaces the files of a tree accordingly. A deleted name may be a directory's: the directory goes with
 * what the changes delete in it, and stays when anything else is in it. Throws Boost's filesystem error, for example
 * when a new file's place is taken by a directory with files of which the changes know nothing. A regular file that is
 * replaced or deleted is moved to where its working copy is, where both are on one file system (kExchange). With a
 * directory, carries out the change to its own name and the changes below it alone.
 */
void InstallChanges(const Changes& changes, const std::string& root, Placing placing = Placing::kExchange,
    const std::string& directory = "");

} // namespace tarn::dataupdate

#endif
