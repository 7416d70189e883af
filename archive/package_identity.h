/** @file Whether a data-update package is the one that was asked for. */
#ifndef ARCHIVE_PACKAGE_IDENTITY_H
#define ARCHIVE_PACKAGE_IDENTITY_H

#include "base/error.h"

#include <string>
#include <string_view>

namespace tarn::archive {

/** A package that is whole and signed, and not the package that was asked for. */
class NotAskedFor : public Error {
public:
	using Error::Error;
};

/**
 * Compares a package with the name that its file was given by whoever asked for it: "<id>_v<version>" for a full
 * package, "<id>_d<version>" for the diff package that leads to the version from the one before it, and "<id>_debug"
 * for a full package of any version. The signature says that the publisher made a package, but not that it is the one
 * that a document's link promised: a link can lead to an old version, to another database, or to a package of the other
 * kind.
 *
 * @param metadata   the archive's metadata; its signature has been checked
 * @param file_name  without directories
 * @throws NotAskedFor saying what is asked for and what the package is, also when the package does not tell
 */
void RequireAskedFor(std::string_view metadata, const std::string& file_name);

} // namespace tarn::archive

#endif
