/** @file What the library's record lists, held against the host's own record of all files. */
#ifndef HOST_LIBRARY_LISTED_FILES_H
#define HOST_LIBRARY_LISTED_FILES_H

#include "dataupdate/installation.h"
#include "host/library/installed_files.h"

#include <optional>
#include <string>

namespace tarn::ctl {

/** The name below a directory of an absolute or relative name, without needless parts; none when it lies elsewhere. */
std::optional<std::string> RelativeName(const std::string& name, const std::string& install_prefix);

/** Whether the library's record lists all files, since it was made by a full package: by absolute names. */
bool ListsAllFiles(const dataupdate::InstalledRecord& record);

/** The digest that the library gives what has no content, or cannot be opened. */
const std::string& DigestOfNothing();

/** Whether what the library lists is a directory that has taken the place of a file which the update deleted. */
bool IsListedDirectory(const std::string& digest, const std::string& path);

/**
 * Whether the record describes what the library's record describes: the same version, with the same digest for each
 * file that the library lists. Another program may have changed the installation without knowing of this record.
 */
bool Agree(const InstalledFiles& record, const dataupdate::InstalledRecord& listed, const std::string& install_prefix);

/** The record, when it agrees with the library's and no replacement is unfinished. */
std::optional<InstalledFiles> ReadCredibleFiles(
    const std::string& id, const dataupdate::InstalledRecord& listed, const std::string& install_prefix);

} // namespace tarn::ctl

#endif
