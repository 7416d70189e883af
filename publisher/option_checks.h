#ifndef PUBLISHER_OPTION_CHECKS_H
#define PUBLISHER_OPTION_CHECKS_H

#include <json/json.h>

#include <optional>
#include <string>

namespace tarn::publisher {

/** Throws UsageError unless a word may stand in file names, links and query strings alike, where nothing is escaped. */
void CheckWord(const std::string& option, const std::string& word);

/** Throws UsageError unless a text is a plain http:// or https:// base. */
void CheckUrl(const std::string& url);

/** Throws UsageError for a number of diff packages that is below 0. */
void CheckKeptDiffs(int keep_diffs);

/** Throws PublishError unless a directory is there; one that is not is no repository, but a slip of the pen. */
void RequireRepository(const std::string& directory);

/** The link to a file of the repository. */
std::string LinkTo(const std::string& url, const std::string& name);

/** When a package says that it was published, in seconds since 1970; none when it says nothing that devices read. */
std::optional<int> PublishedTime(const Json::Value& metadata);

} // namespace tarn::publisher

#endif
