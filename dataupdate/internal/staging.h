/** @file What the strategies ask before they make ready in the temporary area what is then moved into a database. */
#ifndef DATAUPDATE_INTERNAL_STAGING_H
#define DATAUPDATE_INTERNAL_STAGING_H

#include <string>

namespace tarn::dataupdate {

/** Ends the name of the directory in the temporary area in which a new tree, or a part of it, is made ready. */
constexpr char kStaged[] = "staged";

/** Logs why files will be installed one after the other (LOG_INFO). */
void TellSlowReplacement(const std::string& reason);

/** Whether two directories lie on one file system, between whose directories entries are moved by renaming. */
[[nodiscard]] bool AreOnOneFileSystem(const std::string& left, const std::string& right);

/** Whether what is made in a directory gets its group or its access list from it. Moved entries would not. */
[[nodiscard]] bool HandsAttributesDown(const std::string& directory);

} // namespace tarn::dataupdate

#endif
