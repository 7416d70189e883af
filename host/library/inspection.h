/** @file What is known of an installed database, and what of it does not hold. */
#ifndef HOST_LIBRARY_INSPECTION_H
#define HOST_LIBRARY_INSPECTION_H

#include "dataupdate/records.h"
#include "host/library/file_check.h"
#include "host/library/services.h"

#include <string>
#include <vector>

namespace tarn::ctl {

/** How much is known of the installed files. */
enum class Knowledge {
	kAll,      ///< What each file was when it was installed.
	kFromDisk, ///< What each file was when the lost record was made again.
	kListed,   ///< What the last update changed.
};

struct Findings {
	/** Whether a fix has something to do. */
	bool AreBad() const { return is_unfinished || status.data_version == -1 || !bad.empty() || !unknown.empty(); }

	dataupdate::DatabaseStatus status;
	bool is_unfinished = false; ///< A replacement was begun and is not finished, or not recorded yet.
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

} // namespace tarn::ctl

#endif
