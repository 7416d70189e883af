/** @file Which installed files of a database are not as recorded. */
#ifndef TARNDBUDCTL_FILE_CHECK_H
#define TARNDBUDCTL_FILE_CHECK_H

#include <dataupdate/records.h>

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

} // namespace tarn::ctl

#endif
