/**
 * @file
 * Canonical forms that need a working directory for relative paths only.
 */
#ifndef DATAUPDATE_INTERNAL_CANONICAL_PATH_H
#define DATAUPDATE_INTERNAL_CANONICAL_PATH_H

#include <boost/filesystem/path.hpp>

namespace tarn::dataupdate {

/**
 * The canonical form of a path, a relative one counted from the working directory. Boost asks for the working directory
 * in any case, which fails where that has been removed. Throws boost::filesystem::filesystem_error.
 */
boost::filesystem::path CanonicalPath(const boost::filesystem::path& path);

} // namespace tarn::dataupdate

#endif
