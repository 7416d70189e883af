/** @file What is known of a version's files when the next version is published. */
#ifndef PUBLISHER_CHAIN_STATE_H
#define PUBLISHER_CHAIN_STATE_H

#include "publisher/diff_package.h"

#include <json/json.h>

#include <set>
#include <string>
#include <vector>

namespace tarn::publisher {

/** Which kind of patch a file keeps along a chain. */
enum class FileLineage {
	kOpen,    ///< every device has the published bytes, and no patch has been made yet
	kPatched, ///< a database file of which every device has the published bytes, patched by VCDIFF before
	kScripted ///< a database file of which devices have the published content in bytes of their own
};

/**
 * Which kind of patch each file may have next. A script leaves the right content in other bytes than the publisher's,
 * so that a VCDIFF patch against the publisher's bytes would fail on every device that has executed the script. A whole
 * file gives all devices the same bytes again. A file therefore keeps one kind of patch along a chain, until it is
 * published whole or all devices take a full package.
 *
 * Each diff package carries the state after it in its signed metadata.
 */
class ChainState {
public:
	ChainState() = default;
	/** @throws PublishError when the metadata is not that of a diff package */
	static ChainState FromMetadata(const Json::Value& metadata);
	/** Adds the state to a package's metadata. */
	void ToMetadata(Json::Value& metadata) const;

	FileLineage Of(const std::string& name) const;
	const std::set<std::string>& Scripted() const { return scripted_; }

	/**
	 * The state after a version's changes.
	 *
	 * @param databases  which of the changed files are SQLite databases; other files are never scripted
	 */
	[[nodiscard]] ChainState After(
	    const std::vector<DiffMember>& changes, const std::set<std::string>& databases) const;
	/** Whether metadata would have room for the state if all of these files were scripted too. */
	[[nodiscard]] bool HasRoomFor(const std::set<std::string>& names) const;

private:
	[[nodiscard]] bool FitsIntoMetadata() const;
	/** Makes the state fit into metadata: no further file may be scripted, so that the patched ones need no list. */
	void Shorten();

	std::set<std::string> scripted_;
	std::set<std::string> patched_;
	bool closed_ = false; // whether every file that is not scripted counts as patched
};

} // namespace tarn::publisher

#endif
