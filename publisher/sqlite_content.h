#ifndef PUBLISHER_SQLITE_CONTENT_H
#define PUBLISHER_SQLITE_CONTENT_H

#include <optional>
#include <string>

namespace tarn::publisher {

/** Whether a file begins as SQLite's databases do; throws PublishError when it cannot be read. */
bool IsSqliteFile(const std::string& path);

/**
 * Why one database file cannot be turned into another by statements that change rows alone, or nothing. Both files are
 * read as they are, without their companions, and nothing is created beside them.
 */
std::optional<std::string> FindScriptObstacle(const std::string& before, const std::string& after);

/**
 * The first difference in what two database files hold, or nothing: schema, and every table's rows with their row ids,
 * each value by its type and exact bytes. How pages lie in the files makes no difference, nor how the index of a
 * full-text table or an R*Tree is built: RequireSoundIndexes() says whether it fits the rows. Reads row by row.
 */
std::optional<std::string> FindContentDifference(const std::string& left, const std::string& right);

} // namespace tarn::publisher

#endif
