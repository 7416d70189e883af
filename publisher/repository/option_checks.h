/** @file What of a command line is refused before anything is read or written. */
#ifndef PUBLISHER_REPOSITORY_OPTION_CHECKS_H
#define PUBLISHER_REPOSITORY_OPTION_CHECKS_H

#include "publisher/common/publish_error.h"
#include "publisher/repository/publish_options.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tarn::publisher {

/** Throws UsageError unless a word may stand in file names, links and query strings alike, where nothing is escaped. */
void CheckWord(const std::string& option, const std::string& word);

/** Throws UsageError unless a text is a plain http:// or https:// base. */
void CheckUrl(const std::string& url);

/** Throws UsageError for an option's number below the least or above the most; the unit follows these in the text. */
template<typename Number>
void CheckRange(const std::string& option, Number value, Number least, Number most, const char* unit = "") {
	if (value < least || value > most) {
		throw UsageError(option + " " + std::to_string(value) + " must be " + std::to_string(least) + " to " +
		                 std::to_string(most) + unit + ".");
	}
}

/** Throws UsageError for a number of diff packages that is below 0. */
void CheckKeptDiffs(const KeptDiffs& keep_diffs);

/** Throws UsageError for a version that devices cannot read. */
void CheckDataVersion(const std::optional<std::int64_t>& version);

/** Throws UsageError for notes that are too long for metadata, or that a terminal would not show as they are. */
void CheckNotes(const std::string& notes);

/** Throws UsageError when an option's value can never work. */
void CheckOptions(const PublishOptions& options);

/**
 * Throws PublishError when tree and repository lie within each other, when the private key lies in one of them, or when
 * the tree cannot be read.
 */
void CheckApart(const PublishOptions& options);

/** Throws PublishError unless a directory is there: a missing repository is a mistyped path. */
void RequireRepository(const std::string& directory);

} // namespace tarn::publisher

#endif
