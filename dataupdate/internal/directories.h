/** @file Directories: the names in one, and the removal of a tree of any depth. */
#ifndef DATAUPDATE_INTERNAL_DIRECTORIES_H
#define DATAUPDATE_INTERNAL_DIRECTORIES_H

#include "base/handle.h"

#include <dirent.h>

#include <cstddef>
#include <string>

namespace tarn::dataupdate {

using DirectoryHandle = Handle<DIR, closedir>;

/**
 * What a directory holds but "." and "..". Read whole, so that the directory can be closed before anything is done with
 * it: a walk may be deeper than descriptors suffice. Compact, for there may be millions of names.
 */
class DirectoryEntries {
public:
	/** Reads to the end or up to the first error, which Error() tells. */
	explicit DirectoryEntries(DIR* directory);

	/** The system's error number, 0 for none. */
	[[nodiscard]] int Error() const { return error_; }

	/** Calls visit(const char* name, bool is_directory) for each, in the order of the directory. */
	template<typename Visit>
	void ForEach(const Visit& visit) const {
		for (std::size_t at = 0; at < marked_names_.size();) {
			const bool is_directory = marked_names_[at] == kDirectoryMark;
			const char* const name = &marked_names_[at + 1];
			at = marked_names_.find('\0', at) + 1;
			visit(name, is_directory);
		}
	}

private:
	static constexpr char kDirectoryMark = 'd';
	static constexpr char kOtherMark = '-';

	std::string marked_names_; // For each entry a mark, its name and a zero byte.
	int error_ = 0;
};

/** What the directory of a descriptor holds; throws std::system_error, also when it cannot be read to its end. */
[[nodiscard]] DirectoryEntries ReadDirectory(int directory);

/**
 * Removes a path and everything below it; a missing path is no error. Holds three descriptors at most, however deep the
 * tree is, and reaches what lies below paths that are too long to be named. Follows no link. Stops at the first failure
 * with std::system_error; what was removed before stays removed.
 */
void RemoveTree(const std::string& path);

} // namespace tarn::dataupdate

#endif
