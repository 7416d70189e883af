/** @file The digest of a file. */
#ifndef DATAUPDATE_INTERNAL_FILE_DIGEST_H
#define DATAUPDATE_INTERNAL_FILE_DIGEST_H

#include <string>

namespace tarn::dataupdate {

/** The SHA-384 digest of a file; that of nothing when the file cannot be opened for reading and writing. */
std::string FileSha384(const std::string& path);

} // namespace tarn::dataupdate

#endif
