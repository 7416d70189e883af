/**
 * @file
 * The temporary area: what strategies leave in it and how it is cleaned.
 */
#ifndef DATAUPDATE_INTERNAL_TEMP_DATA_H
#define DATAUPDATE_INTERNAL_TEMP_DATA_H

#include <string>

namespace tarn::dataupdate {

/** A name of a database's own in the temporary area: "<area>/<id>_<suffix>". */
std::string TempPath(const std::string& volume, const std::string& id, const std::string& suffix);

/**
 * Makes a directory, with missing parents, in which nothing is, so that nothing of a killed run is unpacked over,
 * patched or installed. To be called right before the directory is used. Throws IOUtils::RmRf's and TarnMkdir's errors.
 */
void MakeEmptyDirectory(const std::string& path);

/**
 * Removes a link that lies where a package is downloaded to: the download would write to whatever the link leads to.
 * Throws UpdateError "Fail to remove all: <path>".
 */
void RemoveLink(const std::string& path);

/** Removes a downloaded package. For destructors: a failure is logged, and a missing file is none. */
void CleanTarball(const std::string& path) noexcept;

/** Removes a directory with everything below it, likewise. */
void CleanTmpData(const std::string& path) noexcept;

} // namespace tarn::dataupdate

#endif
