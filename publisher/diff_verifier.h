#ifndef PUBLISHER_DIFF_VERIFIER_H
#define PUBLISHER_DIFF_VERIFIER_H

#include "publisher/tree.h"

#include <set>
#include <string>

namespace tarn::publisher {

/**
 * Applies an unpacked diff package to a tree with the code of devices, and compares the outcome with the new tree: the
 * same names, bytes and execute permissions, for files changed by scripts the same content, and no empty directory.
 *
 * @param package   the unpacked package
 * @param tree      the old tree, which is changed
 * @param copies    an empty directory for working copies
 * @param expected  the new tree
 * @param scripted  names of the files that the package changes by scripts
 * @throws PublishError naming what differs
 */
void VerifyDiff(const std::string& package, const std::string& tree, const std::string& copies, const Tree& expected,
    const std::set<std::string>& scripted);

} // namespace tarn::publisher

#endif
