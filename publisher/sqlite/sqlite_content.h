/** @file What database files hold, whatever their bytes. */
#ifndef PUBLISHER_SQLITE_SQLITE_CONTENT_H
#define PUBLISHER_SQLITE_SQLITE_CONTENT_H

#include <optional>
#include <string>

namespace tarn::publisher {

/** Whether a file begins as SQLite's databases do; throws PublishError when it cannot be read. */
[[nodiscard]] bool IsSqliteFile(const std::string& path);
/** Whether a file is a database in WAL mode; throws PublishError when it cannot be read. */
[[nodiscard]] bool IsInWalMode(const std::string& path);

/**
 * Why statements that change rows cannot turn one database file into another; no value when they can. Reads both files
 * without SQLite's companions, and creates nothing beside them.
 */
[[nodiscard]] std::optional<std::string> FindScriptObstacle(const std::string& before, const std::string& after);

/**
 * The first difference in what two database files hold; no value when they hold the same. Compares the schema, and row
 * by row each table's row ids and values, by type and exact bytes. Does not compare how pages lie in the files, nor
 * indexes: RequireSoundDatabase(), and for full-text tables and R*Trees RequireSoundIndexes(), says whether these fit
 * the rows.
 */
[[nodiscard]] std::optional<std::string> FindContentDifference(const std::string& left, const std::string& right);

/**
 * Asks SQLite whether a database file is sound, its indexes included. Creates nothing beside the file.
 *
 * @throws PublishError saying what SQLite found first, or SQLite's exception
 */
void RequireSoundDatabase(const std::string& path);

} // namespace tarn::publisher

#endif
