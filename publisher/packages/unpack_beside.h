/** @file Unpacking a package beside the version before it, so that what both have takes space once. */
#ifndef PUBLISHER_PACKAGES_UNPACK_BESIDE_H
#define PUBLISHER_PACKAGES_UNPACK_BESIDE_H

#include "archive/file.h"

#include <string>

namespace tarn::publisher {

/**
 * Unpacks a package that ArchiveFile::Check() has accepted into a directory. A file that is the same in the earlier
 * tree, in bytes and execute permission, becomes a second name of the earlier tree's file: write to neither.
 *
 * @param root     holds both directories
 * @param target   name of the directory in root to unpack into
 * @param earlier  name of the directory in root with the earlier tree
 * @throws Error of archive/ for a package that holds anything but files, and for what cannot be written
 */
void UnpackBeside(const archive::ArchiveFile& package, const std::string& root, const std::string& target,
    const std::string& earlier);

} // namespace tarn::publisher

#endif
