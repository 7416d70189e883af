/** @file Whether a package holds a tree. */
#ifndef PUBLISHER_SAME_CONTENT_H
#define PUBLISHER_SAME_CONTENT_H

#include "archive/file.h"
#include "publisher/tree.h"

#include <string>

namespace tarn::publisher {

/**
 * Compares a full package with a tree, file by file while the package is unpacked in memory: names, bytes and execute
 * permissions.
 *
 * @param archive  has been checked
 * @param path     names the package in errors
 * @throws PublishError when the package is damaged, or a file of the tree cannot be read
 */
[[nodiscard]] bool HoldsTree(const archive::ArchiveFile& archive, const std::string& path, const Tree& tree);

} // namespace tarn::publisher

#endif
