/** @file The diff packages that follow each other up to a version. */
#ifndef PUBLISHER_DIFF_CHAIN_H
#define PUBLISHER_DIFF_CHAIN_H

#include "publisher/chain_state.h"
#include "publisher/package.h"
#include "publisher/repository.h"
#include "publisher/work_directory.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace tarn::publisher {

/** The diff packages of a database that follow each other up to its newest version. */
class DiffChain {
public:
	/**
	 * Reads the packages that the document names, newest first. Ends at a package that is missing or cannot be trusted,
	 * since no chain leads past it.
	 *
	 * @param newest  the document's entry
	 * @throws PublishError when the newest package cannot be trusted or read: nobody knows then what devices have
	 */
	DiffChain(const Repository& repository, const PackageReader& reader, const std::string& id, const Entry& newest);

	const ChainState& State() const { return state_; }
	/** The versions that the packages make, oldest first. */
	std::vector<int> Versions() const;
	/** The name of every file that one of the packages changes. */
	std::set<std::string> ChangedNames() const;

	/**
	 * Makes database files as devices have them that executed every script, with the code of devices.
	 *
	 * @param names  scripted files
	 * @return path by name; leaves out a file when the full package before its scripts is missing or cannot be trusted
	 */
	[[nodiscard]] std::map<std::string, std::string> ReplayScripts(
	    const std::set<std::string>& names, const WorkDirectory& work) const;

private:
	struct Link {
		int version = 0;
		std::string path;
		DiffPackage package;
	};

	Link ReadLink(int version) const;
	/** The version that each file's scripts begin after: a whole file, or the version before the chain. */
	std::map<std::string, int> Beginnings(const std::set<std::string>& names) const;
	/** Unpacks the files of the version before the chain; returns the names of those that are missing. */
	[[nodiscard]] std::set<std::string> UnpackFirst(
	    const std::map<std::string, int>& beginnings, const std::string& directory) const;
	void UnpackSteps(
	    const Link& link, const std::map<std::string, int>& beginnings, const std::string& directory) const;

	const Repository& repository_;
	const PackageReader& reader_;
	std::string id_;
	std::vector<Link> links_; // oldest first
	ChainState state_;
};

/** The versions of diff packages that lead to a version without a gap, newest last. */
[[nodiscard]] std::vector<int> VersionsLeadingTo(int version, const std::map<int, DiffFile>& files);

} // namespace tarn::publisher

#endif
