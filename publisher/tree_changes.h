/** @file What differs between two trees. */
#ifndef PUBLISHER_TREE_CHANGES_H
#define PUBLISHER_TREE_CHANGES_H

#include "publisher/tree.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tarn::publisher {

/** A file that differs between two trees, in its bytes or in whether it is executable. */
struct TreeChange {
	std::string name;
	std::optional<TreeFile> before; // none when it is new
	std::optional<TreeFile> after;  // none when it has vanished
};

/** What differs between two trees, in byte order of names; throws PublishError when a file cannot be read. */
[[nodiscard]] std::vector<TreeChange> CompareTrees(const Tree& before, const Tree& after);

/**
 * The directories of one tree that the other lacks, in byte order of names. Leaves out the name of a directory that is
 * a file in the other tree.
 */
[[nodiscard]] std::vector<std::string> EmptiedDirectories(const Tree& before, const Tree& after);

/**
 * Why devices could not apply changes; no value when they can. Devices build changed files under flat names in one
 * directory, and put them in place in order of names, each by removing what is there.
 *
 * @param before   the tree that is changed
 * @param earlier  names that earlier packages of the same chain change
 */
[[nodiscard]] std::optional<std::string> FindNameConflict(
    const std::vector<TreeChange>& changes, const Tree& before, const std::set<std::string>& earlier);

} // namespace tarn::publisher

#endif
