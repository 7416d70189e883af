/** @file Full packages of withdrawn versions: kept for a withdrawal of the withdrawal, and not served. */
#ifndef PUBLISHER_WITHDRAWN_PACKAGES_H
#define PUBLISHER_WITHDRAWN_PACKAGES_H

#include <set>
#include <string>

namespace tarn::publisher {

/** Where a withdrawal keeps a full package: beside it, in a hidden directory that nobody but its owner may enter. */
std::string WithdrawnPath(const std::string& package);

/**
 * Marks a full package as withdrawn. It stays in its place, because a document still names it; MoveWithdrawn() takes it
 * away when no document does, also after the publisher was killed in between. Throws PublishError.
 */
void MarkWithdrawn(const std::string& package);

/** Where withdrawn packages of a database's directory are kept; its name begins with a dot, so nobody serves it. */
std::string WithdrawnDirectory(const std::string& directory);

/**
 * Moves the marked packages of a directory to where they are kept. Removes the marks of those that are still offered: a
 * publisher was killed before its document.
 *
 * @param offered  the names of full packages that documents name, without directories
 * @throws PublishError
 */
void MoveWithdrawn(const std::string& directory, const std::set<std::string>& offered);

} // namespace tarn::publisher

#endif
