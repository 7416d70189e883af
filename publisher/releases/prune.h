/** @file Removing packages that nobody needs any more. */
#ifndef PUBLISHER_RELEASES_PRUNE_H
#define PUBLISHER_RELEASES_PRUNE_H

#include "publisher/packages/observer.h"
#include "publisher/repository/document.h"
#include "publisher/repository/repository.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace tarn::publisher {

/**
 * Which packages of a database are needed, by what all documents say:
 *
 * - every package that a document names;
 * - the full packages of the versions that a document's chain leads through, from which the next diff packages are made
 *   and tried;
 * - the full package below each document's newest version, which devices may still ask for that have the document of an
 *   hour ago;
 * - everything of a version above the highest that a document names: its number is taken, and why it is there is
 *   unknown. An empty diff package is of the withdrawal that made it.
 */
class NeededPackages {
public:
	/**
	 * @param id       of the database
	 * @param entries  of all documents, by their names; not empty
	 * @param files    the packages that are there
	 */
	NeededPackages(
	    const std::string& id, const std::map<std::string, Entry>& entries, const std::vector<PackageFile>& files);

	[[nodiscard]] bool IsNeeded(const PackageFile& file) const;
	/** Whether a document names the package. */
	[[nodiscard]] bool IsNamed(const PackageFile& file) const;
	/** Whether the package is of a version above the highest that a document names. */
	[[nodiscard]] bool IsAboveAll(const PackageFile& file) const;

private:
	std::string id_;
	std::set<std::string> named_; // by what the packages are called
	std::set<int> full_;          // versions of full packages that are needed besides
	int highest_ = -1;
};

/** What Prune() removes of a database that a document names: packages in their place, and withdrawn ones. */
[[nodiscard]] std::vector<std::string> UnneededPackages(
    const NeededPackages& needed, const std::vector<PackageFile>& in_place, const std::vector<PackageFile>& withdrawn);

struct PruneOptions {
	std::string repository;
	std::vector<std::string> ids; // empty for all
	bool dry_run = false;
};

struct PruneResult {
	struct File {
		std::string path;
		std::uint64_t size = 0; // of all that a directory holds
	};
	std::vector<File> files; // that were removed, or would be
	std::uint64_t bytes = 0;

	/** Counts a file or a directory. */
	void Take(const std::string& path);
};

/**
 * Removes packages that are not needed, the oldest first, and what killed publishers left. Holds the repository's lock,
 * so that publishers wait. When the process is killed, what is left to remove is found by the next run.
 *
 * @param observer  gets a warning for each database that no document names, of which nothing is removed
 * @throws PublishError, also for a document that cannot be read: nothing is removed then
 */
PruneResult Prune(const PruneOptions& options, const PublishObserver& observer);

} // namespace tarn::publisher

#endif
