/** @file Whether changed files can be put where they belong, found out before the first one is. */
#ifndef DATAUPDATE_INTERNAL_PATCH_CONFLICTS_H
#define DATAUPDATE_INTERNAL_PATCH_CONFLICTS_H

#include "dataupdate/strategy.h"

#include <map>
#include <string>

namespace tarn::dataupdate {

/**
 * Throws UpdateError "In the way of <file>: <path>" when an installed file, or a link, has the place of a directory
 * above a new file, a directory holds files that the chain does not delete where a new file goes, one new file is above
 * another, or the journal of a database that is replaced holds changes of another program.
 */
void CheckConflicts(const std::map<std::string, ModifyInfo>& modify_infos, const std::string& install_directory);

} // namespace tarn::dataupdate

#endif
