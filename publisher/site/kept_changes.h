/** @file What releases change, found once and kept for the next site. */
#ifndef PUBLISHER_SITE_KEPT_CHANGES_H
#define PUBLISHER_SITE_KEPT_CHANGES_H

#include "base/unique_fd.h"
#include "publisher/changes/changes.h"
#include "publisher/site/catalogue.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tarn::publisher::site {

/** Where a repository keeps changes; the name begins with a dot, so nobody serves them. */
constexpr const char* kKeptChangesName = ".tarndbudpub.changes";

/** What a version changes, and since which version. */
struct ReleaseChanges {
	int from = 0;
	std::string markup;
};

/**
 * Finds what versions change. Each result is kept in a file of the repository whose name is a digest of everything that
 * decides it: what is signed of the packages, the trusted keys, the options, and the program. A file that is there is
 * therefore right, and it appears whole, so a killed run leaves nothing wrong.
 */
class KeptChanges {
public:
	/**
	 * Holds off other runs that keep changes in this repository; throws PublishError.
	 *
	 * @param keys      files of public keys
	 * @param examples  of rows
	 */
	KeptChanges(const std::string& repository, const std::vector<std::string>& keys, std::size_t examples,
	    const PublishObserver& observer);

	/**
	 * @return no value for a version with nothing to compare: the first one, a withdrawn one or a withdrawal, and one
	 *         whose packages are not kept; also, with a warning, for one whose packages cannot be used
	 */
	[[nodiscard]] std::optional<ReleaseChanges> Of(const Database& database, const Version& version);

	/** Removes what was kept and not asked for since; throws PublishError. */
	void RemoveOthers() const;

	std::uint64_t Made() const { return made_; }
	std::uint64_t Found() const { return found_; }

private:
	std::string NameOf(const Database& database, int version, const std::vector<std::string>& packages) const;

	ChangesOptions options_; // but for the database and its versions
	const PublishObserver& observer_;
	std::string directory_;
	UniqueFd lock_;
	std::string constants_; // what decides all results
	std::set<std::string> used_;
	std::uint64_t made_ = 0;
	std::uint64_t found_ = 0;
};

} // namespace tarn::publisher::site

#endif
