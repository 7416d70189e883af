/** @file Full packages of withdrawn versions: kept for a withdrawal of the withdrawal, and not served. */
#ifndef PUBLISHER_REPOSITORY_WITHDRAWN_PACKAGES_H
#define PUBLISHER_REPOSITORY_WITHDRAWN_PACKAGES_H

#include <set>
#include <string>

namespace tarn::publisher {

/** Where a withdrawal keeps a full package: beside it, in a hidden directory that nobody but its owner may enter. */
std::string WithdrawnPath(const std::string& package);

/**
 * Marks a full package as withdrawn. It stays in its place, because a document still names it; MoveWithdrawn() takes it
 * away when no document does, also after the publisher was killed in between. Throws PublishError.
 *
 * @param withdrawal  the version that brings an earlier content back
 */
void MarkWithdrawn(const std::string& package, int withdrawal);

/** Where withdrawn packages of a database's directory are kept; its name begins with a dot, so nobody serves it. */
std::string WithdrawnDirectory(const std::string& directory);

/**
 * The names of full packages that are marked, the mark of a withdrawal that was published. They are withdrawn, whether
 * they were moved or still lie in their place. Throws PublishError.
 *
 * @param newest  the highest version that a document names
 */
std::set<std::string> MarkedPackages(const std::string& directory, int newest);

/**
 * Moves the marked packages of a directory to where they are kept. A package that is still offered stays with its mark:
 * another channel has yet to move on.
 *
 * A mark above the newest version is removed: the publisher was killed before its document. Whoever publishes calls
 * this before the document, so that a later version never makes such a mark look like that of a withdrawal that was.
 *
 * @param offered  the names of full packages that documents name, without directories
 * @param newest   the highest version that a document names
 * @throws PublishError
 */
void MoveWithdrawn(const std::string& directory, const std::set<std::string>& offered, int newest);

} // namespace tarn::publisher

#endif
