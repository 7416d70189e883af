#ifndef PUBLISHER_DIFF_CHAIN_H
#define PUBLISHER_DIFF_CHAIN_H

#include "publisher/chain_state.h"
#include "publisher/package_reader.h"
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
	 * Reads the packages that the document names, down to one that is gone or cannot be trusted: those below lead
	 * nowhere then.
	 *
	 * @param newest  the document's entry
	 * @throws PublishError when the newest of them cannot be trusted or read: what devices have then is not known
	 */
	DiffChain(const Repository& repository, const PackageReader& reader, const std::string& id, const Entry& newest);

	/** What is known about the newest version's files. */
	const ChainState& State() const { return state_; }
	/** The versions that the packages make, oldest first. */
	std::vector<int> Versions() const;
	/** The name of every file that one of the packages changes. */
	std::set<std::string> ChangedNames() const;

	/**
	 * Makes database files as devices have them that came all the way by scripts, with the code of devices.
	 *
	 * @param names  scripted files
	 * @return path by name; a file is left out when the full package that it began with cannot be had any more
	 */
	std::map<std::string, std::string> ReplayScripts(
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
	/** Unpacks the files that were there before the chain; the names that could not be had are returned. */
	std::set<std::string> UnpackFirst(const std::map<std::string, int>& beginnings, const std::string& directory) const;
	void UnpackSteps(
	    const Link& link, const std::map<std::string, int>& beginnings, const std::string& directory) const;

	const Repository& repository_;
	const PackageReader& reader_;
	std::string id_;
	std::vector<Link> links_; // oldest first
	ChainState state_;
};

/** The versions of diff packages that lead to a version without a gap, newest last. */
std::vector<int> VersionsLeadingTo(int version, const std::map<int, DiffFile>& files);

} // namespace tarn::publisher

#endif
