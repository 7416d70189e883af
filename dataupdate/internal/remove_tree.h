/** @file Removing a directory tree of any depth. */
#ifndef DATAUPDATE_INTERNAL_REMOVE_TREE_H
#define DATAUPDATE_INTERNAL_REMOVE_TREE_H

#include <string>

namespace tarn::dataupdate {

/**
 * Removes a path and everything below it; a missing path is no error. Holds three descriptors at most, however deep the
 * tree is, and reaches what lies below paths that are too long to be named. Follows no link. Stops at the first failure
 * with std::system_error; what was removed before stays removed.
 */
void RemoveTree(const std::string& path);

} // namespace tarn::dataupdate

#endif
