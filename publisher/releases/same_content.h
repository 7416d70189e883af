/** @file Whether a package holds a tree, and whether a withdrawn one does. */
#ifndef PUBLISHER_RELEASES_SAME_CONTENT_H
#define PUBLISHER_RELEASES_SAME_CONTENT_H

#include "archive/file.h"
#include "publisher/packages/tree.h"
#include "publisher/repository/repository.h"

#include <optional>
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

/**
 * The newest withdrawn version that has the content of a tree, also while another channel keeps its package in place.
 * None when a later version that was not withdrawn has that content too: the withdrawal was withdrawn then. Packages
 * that were pruned tell nothing. Trusts every package, because nothing is made from them; throws PublishError when one
 * cannot be read.
 *
 * @param newest  the highest version that a document names
 */
[[nodiscard]] std::optional<int> FindWithdrawn(
    const Repository& repository, const std::string& id, int newest, const Tree& tree);

} // namespace tarn::publisher

#endif
