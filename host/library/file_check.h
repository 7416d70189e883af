/** @file Which installed files of a database are not as recorded. */
#ifndef HOST_LIBRARY_FILE_CHECK_H
#define HOST_LIBRARY_FILE_CHECK_H

#include "dataupdate/records.h"
#include "host/library/installed_files.h"

#include <string>
#include <vector>

namespace tarn::ctl {

/** One file that fails, and in what. */
struct BadFile {
	std::string name; ///< As recorded.
	std::string path;
	std::string reason; ///< "is missing", "has changed", ...
};

/** Checks every file, other than CheckStatus(), which ends at the first bad one. */
std::vector<BadFile> FindBadFiles(const dataupdate::DatabaseStatus& status, const std::string& install_prefix);

/**
 * The same for the host's record of all files, and for what lies in the directory without being recorded.
 *
 * @param listed  what the library's record names, which is left to the function above
 */
std::vector<BadFile> FindBadFiles(
    const InstalledFiles& record, const dataupdate::DatabaseStatus& listed, const std::string& install_prefix);

/**
 * The names, relative to the directory, of everything in it but directories that the record does not know. What SQLite
 * keeps beside a recorded database for those who read it ("-shm", and "-wal" and "-journal" while they are empty) is
 * left out: it holds no data, and is there whenever somebody reads.
 */
std::vector<std::string> FindUnknownFiles(const InstalledFiles& record, const std::string& install_prefix);

} // namespace tarn::ctl

#endif
