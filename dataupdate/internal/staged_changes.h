/** @file Keeping the time short for which readers wait while a diff update changes many files. */
#ifndef DATAUPDATE_INTERNAL_STAGED_CHANGES_H
#define DATAUPDATE_INTERNAL_STAGED_CHANGES_H

#include "dataupdate/internal/changes.h"
#include "dataupdate/internal/linked_tree.h"
#include "dataupdate/internal/replacement_plan.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace tarn::dataupdate {

/** How many renames readers may wait for. On btrfs each takes up to 150 microseconds until its metadata is in memory.
 */
constexpr std::size_t kMostRenames = 128;

/**
 * The directories that have to be exchanged whole, so that the changes need about so many renames: none for fewer
 * changes, and as far down the tree as can be. A directory that is not installed yet is exchanged whole at the highest
 * level. Changes to more files at the top of the tree than that remain that many, since the tree's own directory stays.
 */
[[nodiscard]] std::vector<std::string> DirectoriesToExchange(
    const Changes& changes, const std::string& install_directory, std::size_t most_renames);

/**
 * Installs changes as InstallChanges() does. Where that would be many renames, directories in which much changes are
 * made ready beside the database, of links to the files that stay and to the new ones, and take the place of the
 * installed ones by one rename each. A directory of which nothing stays is moved to the place by one rename. A
 * directory for which that cannot be done, or in which a name was added or removed meanwhile, is left to
 * InstallChanges().
 */
class StagedChanges {
public:
	/** @param place  a directory of the temporary area for what is made ready; emptied when it is needed */
	StagedChanges(
	    Changes changes, std::string install_directory, std::string place, std::size_t most_renames = kMostRenames);

	/** To be called before readers are held off. Throws UpdateError "Interrupted". */
	void Stage();

	/** Adds every change to a replacement's plan. Throws what PlanWriter throws. */
	void AddTo(PlanWriter& plan) const;

	/** Throws what InstallChanges() throws. Replaced directories are in the place afterwards. */
	void Install() const;

private:
	struct Directory {
		std::string name;
		std::string staged;
		std::optional<LinkedTree> tree; // None where no such directory is installed.
		bool vanishes = false;          // Whether nothing is left of it to be made ready.
	};

	[[nodiscard]] bool _MakePlace() const;
	void _StageDirectories(const std::vector<std::string>& names);
	void _SetRemaining();
	/** Makes a directory ready below a root, under the name that it has in the database. Throws std::exception. */
	Directory _StageDirectory(const std::string& name, const std::string& root) const;
	[[nodiscard]] bool _MoveIn(const Directory& directory) const;
	const Changes& _Remaining() const { return directories_.empty() ? changes_ : remaining_; }
	std::string _Installed(const std::string& name) const { return install_directory_ + "/" + name; }

	Changes changes_;
	Changes remaining_; // Those that lie in no directory that is exchanged.
	std::string install_directory_;
	std::string place_;
	std::size_t most_renames_;
	std::vector<Directory> directories_;
};

} // namespace tarn::dataupdate

#endif
