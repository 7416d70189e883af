/** @file New files that are made ready in the temporary area, and take the place of installed ones by few renames. */
#ifndef DATAUPDATE_INTERNAL_STAGED_TREE_H
#define DATAUPDATE_INTERNAL_STAGED_TREE_H

#include <functional>
#include <string>

namespace tarn::dataupdate {

/** Ends the name of the directory in which a new tree, or a part of it, is made ready. */
constexpr char kStaged[] = "staged";
/** Ends the name of the directory to which a full update moves the old tree, until readers may go on. */
constexpr char kReplaced[] = "replaced";

/** Logs why files will be installed one after the other (LOG_INFO). */
void TellSlowReplacement(const std::string& reason);

/**
 * Whether two directories lie on one file system and below one mount point of it, so that entries are moved from one to
 * the other by renaming. A confined service may see one file system below several.
 */
[[nodiscard]] bool AreOnOneMount(const std::string& left, const std::string& right);

/** Whether what is made in a directory gets its group or its access list from it. Moved entries would not. */
[[nodiscard]] bool HandsAttributesDown(const std::string& directory);

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
	 * Moves what is installed to the temporary area, except entries of names that stay; removes what is mounted, which
	 * cannot be moved.
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
