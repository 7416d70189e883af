/** @file What is refused before anything is written. */
#ifndef PUBLISHER_REPOSITORY_CHECKS_H
#define PUBLISHER_REPOSITORY_CHECKS_H

#include "publisher/repository/publish_options.h"
#include "publisher/repository/repository.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tarn::publisher {

/** Throws UsageError unless a word may stand in file names, links and query strings alike, where nothing is escaped. */
void CheckWord(const std::string& option, const std::string& word);

/** Throws UsageError unless a text is a plain http:// or https:// base. */
void CheckUrl(const std::string& url);

/** Throws UsageError for a number of diff packages that is below 0. */
void CheckKeptDiffs(const KeptDiffs& keep_diffs);

/** Throws UsageError for a version that devices cannot read. */
void CheckDataVersion(const std::optional<std::int64_t>& version);

/** Throws UsageError for notes that are too long for metadata, or that a terminal would not show as they are. */
void CheckNotes(const std::string& notes);

/** Throws UsageError when an option's value can never work. */
void CheckOptions(const PublishOptions& options);

/** Throws PublishError when tree and repository lie within each other, or the tree cannot be read. */
void CheckApart(const PublishOptions& options);

/** Throws PublishError unless a directory is there: a missing repository is a mistyped path. */
void RequireRepository(const std::string& directory);

/** Which version a repository lets a publisher publish. */
struct NextVersion {
	int data_version = 0;
	bool is_first = false; // neither a document nor a package of the database is there
	bool is_begun = false; // its full package is there, from a publisher that was killed before its document
};

/**
 * Chooses the version to publish, the last version plus one unless the options name another. Devices may have every
 * package that is in the repository, whether a document names it or not. They never go down, and never take another
 * tree of the version that they have.
 *
 * @throws PublishError when the version is not above all that a document names, when no document names the database
 *         though packages of it are there, when a package of a higher version is there, or a diff package of this
 *         version, or when nothing is there and the options allow no first publication
 */
[[nodiscard]] NextVersion ChooseVersion(const PublishOptions& options, const Repository& repository);

} // namespace tarn::publisher

#endif
