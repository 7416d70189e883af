/**
 * @file
 * The temporary area: what strategies leave in it and how it is cleaned.
 */
#ifndef DATAUPDATE_TEMP_DATA_H
#define DATAUPDATE_TEMP_DATA_H

#include <string>

namespace tarn::dataupdate {

/**
 * Removes every package, unpack directory and working copy of one project from the temporary area of a base, so that
 * nothing of a killed run is unpacked over, patched or installed. Other projects' data stays. Throws UpdateError.
 */
void RemoveLeftovers(const std::string& base, const std::string& id);

/** Removes a downloaded package. For destructors: a failure is logged, and a missing file is none. */
void CleanTarball(const std::string& path) noexcept;

/** Removes a directory with everything below it, likewise. */
void CleanTmpData(const std::string& path) noexcept;

} // namespace tarn::dataupdate

#endif
