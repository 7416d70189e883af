/** @file What is known of an installed database, and what of it does not hold. */
#ifndef HOST_LIBRARY_INSPECTION_H
#define HOST_LIBRARY_INSPECTION_H

#include "dataupdate/installation.h"
#include "host/library/installed_files.h"
#include "host/library/services.h"

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
std::vector<BadFile> FindBadFiles(const dataupdate::InstalledRecord& listed, const std::string& install_prefix);

/**
 * The same for the host's record of all files.
 *
 * @param listed  what the library's record names, which is left to the function above
 */
std::vector<BadFile> FindBadFiles(
    const InstalledFiles& record, const dataupdate::InstalledRecord& listed, const std::string& install_prefix);

/**
 * The names, relative to the directory, of everything in it but directories that the record does not know. What SQLite
 * keeps beside a recorded database for those who read it ("-shm", and "-wal" and "-journal" while they are empty) is
 * left out: it holds no data, and is there whenever somebody reads.
 */
std::vector<std::string> FindUnknownFiles(const InstalledFiles& record, const std::string& install_prefix);

/** How much is known of the installed files. */
enum class Knowledge {
	kAll,      ///< What each file was when it was installed.
	kFromDisk, ///< What each file was when the lost record was made again.
	kListed,   ///< What the last update changed.
};

struct Findings {
	/** Whether a fix has something to do. */
	bool AreBad() const { return is_unfinished || listed.data_version == -1 || !bad.empty() || !unknown.empty(); }

	dataupdate::InstalledRecord listed; ///< The library's record.
	bool is_unfinished = false;         ///< A replacement was begun and is not finished, or not recorded yet.
	Knowledge knowledge = Knowledge::kListed;
	std::vector<BadFile> bad;
	std::vector<BadFile> unknown; ///< What is there without being recorded; only where all files are known.
};

/** Compares everything that is recorded of a database with what is installed. */
Findings Inspect(const Services& services, const std::string& id);

/**
 * Looks once more, at no more than what was found before, unless other things are recorded by now or replaced without
 * a record.
 */
Findings InspectAgain(const Services& services, const std::string& id, const Findings& before);

/** Whether a database is installed. One whose record cannot be read counts: something was there to record. */
bool IsInstalled(const Services& services, const std::string& id);

} // namespace tarn::ctl

#endif
