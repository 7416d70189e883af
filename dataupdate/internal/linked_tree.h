/** @file A second tree of the same files, to be changed beside the first one and put into its place. */
#ifndef DATAUPDATE_INTERNAL_LINKED_TREE_H
#define DATAUPDATE_INTERNAL_LINKED_TREE_H

#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

namespace tarn::dataupdate {

/**
 * A copy of a directory in which every file is the original under a second name. Directories are new ones, with owner,
 * mode, extended attributes (access lists with them) and times of the originals. The original stays as it is.
 */
class LinkedTree {
public:
	/** Whether a file, by its name relative to the directory, gets no second name, since another one takes its place.
	 */
	using IsReplaced = std::function<bool(const std::string& name)>;

	/**
	 * Makes the copy at a path where nothing is. Throws std::system_error, and leaves what it made, where a second name
	 * or an attribute is refused, another file system is mounted in the directory, or the directory was changed so
	 * recently that its times could not tell a change to come. Throws UpdateError "Interrupted".
	 */
	LinkedTree(const std::string& original, const std::string& copy, const IsReplaced& is_replaced);

	/**
	 * Whether no name has been added, removed or given to another file in the original since, and no directory there
	 * has got other attributes: the copy can take its place. What was written into files is in the copy as well.
	 */
	[[nodiscard]] bool IsCurrent() const;

private:
	/** As it was before its names were read. */
	struct Directory {
		std::string path;
		dev_t device = 0;
		ino_t inode = 0;
		timespec changed = {};
	};
	class Linker;

	std::vector<Directory> directories_;
};

} // namespace tarn::dataupdate

#endif
