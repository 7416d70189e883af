#ifndef PUBLISHER_VIRTUAL_TABLES_H
#define PUBLISHER_VIRTUAL_TABLES_H

#include <SQLiteCpp/Database.h>

#include <optional>
#include <string>
#include <vector>

namespace tarn::publisher {

/** A name as SQL writes it, in double quotes. */
std::string QuotedName(const std::string& name);

/** A virtual table of a database and the module that makes it work, in lower case. */
struct VirtualTable {
	std::string name;
	std::string module;

	bool IsFullText() const { return module == "fts3" || module == "fts4" || module == "fts5"; }
	bool IsRTree() const { return module == "rtree" || module == "rtree_i32"; }
};

std::vector<VirtualTable> VirtualTablesOf(const SQLite::Database& database);

/**
 * Why statements about a database's virtual tables cannot be relied on, or nothing. Full-text tables that hold their
 * own rows, and R*Trees, can be changed by script.
 */
std::optional<std::string> FindVirtualTableObstacle(const SQLite::Database& database);

/**
 * Queries for what belongs to a virtual table beside its rows and is the same whenever the rows are: settings, and the
 * lengths that ranking takes. An index is not, since it depends on the order of the changes.
 */
std::vector<std::string> QueriesBesideRows(const SQLite::Database& database, const VirtualTable& table);

/**
 * Asks SQLite whether the index of every virtual table is the one of its rows, so that equal rows are found by the same
 * words. The file is opened for writing, since SQLite asks so, and keeps its content.
 *
 * @throws PublishError naming the table whose index is not
 */
void RequireSoundIndexes(const std::string& database);

} // namespace tarn::publisher

#endif
