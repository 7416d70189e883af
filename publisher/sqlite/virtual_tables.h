/** @file Full-text tables and R*Trees of databases that scripts change. */
#ifndef PUBLISHER_SQLITE_VIRTUAL_TABLES_H
#define PUBLISHER_SQLITE_VIRTUAL_TABLES_H

#include <SQLiteCpp/Database.h>

#include <optional>
#include <string>
#include <vector>

namespace tarn::publisher {

/** A virtual table of a database and the module that makes it work, in lower case. */
struct VirtualTable {
	std::string name;
	std::string module;
	std::string sql; // that made it

	bool IsFullText() const { return module == "fts3" || module == "fts4" || module == "fts5"; }
	bool IsRTree() const { return module == "rtree" || module == "rtree_i32"; }
};

std::vector<VirtualTable> VirtualTablesOf(const SQLite::Database& database);

/**
 * Why scripts cannot change a database's virtual tables; no value when they can. They can change R*Trees, and full-text
 * tables that hold their own rows.
 */
[[nodiscard]] std::optional<std::string> FindVirtualTableObstacle(const SQLite::Database& database);
/** The same for one of them. */
[[nodiscard]] std::optional<std::string> FindVirtualTableObstacle(
    const SQLite::Database& database, const VirtualTable& table);

/**
 * Queries for what a virtual table holds beside its rows and must be the same when the rows are: settings, and the
 * lengths that ranking uses. Asks of no index, which depends on the order of the changes.
 */
std::vector<std::string> QueriesBesideRows(const SQLite::Database& database, const VirtualTable& table);

/**
 * Asks SQLite whether the index of every virtual table fits the table's rows. Opens the file for writing, as SQLite
 * demands, and leaves its content as it is.
 *
 * @throws PublishError naming the table whose index does not fit
 */
void RequireSoundIndexes(const std::string& database);

} // namespace tarn::publisher

#endif
