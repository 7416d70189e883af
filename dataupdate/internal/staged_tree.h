/** @file A new tree of files that is ready beside the installed one, and takes its place by few renames. */
#ifndef DATAUPDATE_INTERNAL_STAGED_TREE_H
#define DATAUPDATE_INTERNAL_STAGED_TREE_H

#include <functional>
#include <string>

namespace tarn::dataupdate {

/** Ends the name of the directory to which a full update moves the old tree, until readers may go on. */
constexpr char kReplaced[] = "replaced";

/** Removes what is in a directory. Throws IOUtils::RmRf's errors. */
void RemoveEntries(const std::string& directory);

/** Moves entries at the top of trees only. Its functions throw Boost's filesystem error and UpdateError. */
class StagedTree {
public:
	StagedTree(const std::string& volume, const std::string& id, std::string install_directory);

	/** Where the new tree is made ready. */
	const std::string& Path() const { return staged_; }
	/** Makes empty directories for the new tree, and for the old one. */
	void MakeRoom() const;
	/**
	 * Moves what is installed to the temporary area, and removes what is mounted, which cannot be moved.
	 *
	 * @param stays  tells of an entry's name whether it is left alone
	 */
	void ClearInstalled(const std::function<bool(const std::string& name)>& stays = nullptr) const;
	/** Moves the new tree in; false, with nothing done, where that is no mere renaming. */
	[[nodiscard]] bool MoveIn() const;

private:
	std::string staged_;
	std::string replaced_;
	std::string install_directory_;
};

} // namespace tarn::dataupdate

#endif
