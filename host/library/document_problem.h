/** @file Says what is wrong with a server's answer. Everything here is free of files and clocks. */
#ifndef HOST_LIBRARY_DOCUMENT_PROBLEM_H
#define HOST_LIBRARY_DOCUMENT_PROBLEM_H

#include <json/value.h>

#include <cstdint>
#include <ctime>
#include <string>

namespace tarn::ctl {

/** An answer that cannot be decoded, as it lies in the cache. */
struct CachedPage {
	std::string link;
	std::string beginning; ///< Its first bytes, or all of them when there are fewer.
	std::uintmax_t size = 0;
};

/** One sentence without its end: what came from the link instead of a document. */
std::string DescribePage(const CachedPage& page);

/** What makes a document useless for a database, as the end of a sentence: "does not offer geo", "is malformed: ...".
 */
std::string DescribeDocument(const Json::Value& document, const std::string& id);

/** Whether an entry's "data_version" is a version: digits alone, as a number of at most 2147483647. */
bool HasPlainVersion(const Json::Value& entry);
/** Whether all of an entry's diff packages are named by versions. */
bool HasPlainDiffVersions(const Json::Value& entry);

/** How long a bad answer stays, and how to be rid of it, to be appended; empty when it is asked for again anyway. */
std::string DescribeCaching(std::time_t modified, std::time_t now);

} // namespace tarn::ctl

#endif
