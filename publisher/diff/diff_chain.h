/** @file The chain of diffs that devices go through, and what they have in its middle. */
#ifndef PUBLISHER_DIFF_DIFF_CHAIN_H
#define PUBLISHER_DIFF_DIFF_CHAIN_H

#include "publisher/common/files.h"
#include "publisher/diff/kind_plan.h"
#include "publisher/packages/diff_package.h"
#include "publisher/packages/package.h"
#include "publisher/repository/repository.h"

#include <json/json.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace tarn::publisher {

/**
 * Which files devices have in bytes of their own. A script leaves the right content in other bytes than the
 * publisher's, so that a VCDIFF patch against the publisher's bytes would fail on every device that has executed the
 * script. A whole file gives all devices the same bytes again, and so does a full package.
 *
 * Each diff package carries the state after it in its signed metadata.
 */
class ChainState {
public:
	ChainState() = default;
	/** @throws PublishError when the metadata is not that of a diff package */
	static ChainState FromMetadata(const Json::Value& metadata);
	void ToMetadata(Json::Value& metadata) const;

	bool IsScripted(const std::string& name) const { return scripted_.count(name) > 0; }
	const std::set<std::string>& Scripted() const { return scripted_; }

	/** The state after a version's changes. */
	[[nodiscard]] ChainState After(const std::vector<DiffMember>& changes) const;
	/** The files that are scripted by this state or another. */
	[[nodiscard]] ChainState Or(const ChainState& other) const;
	/** Whether metadata would have room for the state if all of these files were scripted too. */
	[[nodiscard]] bool HasRoomFor(const std::set<std::string>& names) const;

private:
	std::set<std::string> scripted_;
};

/** Adds the plans of databases to a package's metadata, unless there is no room for them: they are only advice. */
void PlansToMetadata(const std::map<std::string, Json::Value>& plans, Json::Value& metadata);

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
	struct Link {
		int version = 0;
		std::string path;
		DiffPackage package;

		/** Whether a withdrawal put this package in the place of another one, whose changes are no longer known. */
		bool IsEmptied() const { return package.metadata.isMember(kWithdrawnByKey); }
	};
	/** The packages, oldest first. */
	const std::vector<Link>& Links() const { return links_; }
	/** The package that leads to a version; none when the chain does not have it. */
	const Link* Find(int version) const;

	/** The name of every file that one of the packages changes, but for those that lead up to a version. */
	std::set<std::string> ChangedNames(int after = -1) const;

	/** What the steps of the chain have cost for a database, as far as their packages say. */
	ChainCosts CostsOf(const std::string& name) const;

	/**
	 * Makes database files as devices have them that executed every script, with the code of devices.
	 *
	 * @param names  scripted files
	 * @return path by name; leaves out a file when the full package before its scripts is missing or cannot be trusted
	 */
	[[nodiscard]] std::map<std::string, std::string> ReplayScripts(
	    const std::set<std::string>& names, const WorkDirectory& work) const;

private:
	Link ReadLink(int version, const DiffFile& named) const;
	/** What a file's scripts begin with. */
	struct Beginning {
		int version = 0;
		bool is_full_package = true; // or the whole file in the diff package of this version
	};
	using Beginnings = std::map<std::string, Beginning>;

	Beginnings BeginningsOf(const std::set<std::string>& names) const;
	/** Unpacks the files that full packages hold; takes those away that are missing, and are not tried out. */
	void UnpackFirst(Beginnings& beginnings, const std::string& directory) const;
	void UnpackSteps(const Link& link, const Beginnings& beginnings, const std::string& directory) const;

	const Repository& repository_;
	const PackageReader& reader_;
	std::string id_;
	std::vector<Link> links_; // oldest first
	ChainState state_;
};

} // namespace tarn::publisher

#endif
