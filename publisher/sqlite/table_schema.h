/** @file What comparing two versions of a database must know of a table. */
#ifndef PUBLISHER_SQLITE_TABLE_SCHEMA_H
#define PUBLISHER_SQLITE_TABLE_SCHEMA_H

#include <SQLiteCpp/Database.h>

#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace tarn::publisher {

/** A column of a primary key. */
struct KeyColumn {
	std::string name;
	std::string type;
	std::string collation;

	bool operator==(const KeyColumn& other) const {
		return std::tie(name, type, collation) == std::tie(other.name, other.type, other.collation);
	}
};

struct TableSchema {
	bool is_virtual = false;
	std::string sql;
	std::vector<std::string> columns; // that hold values of their own: no generated ones
	std::vector<KeyColumn> key;       // in the order of the primary key
	std::string obstacle;             // why its rows cannot be read; empty when they can
};

/**
 * The tables of an attached database by name, without SQLite's own and those that virtual tables keep.
 *
 * @param schema  the name under which it is attached to the connection
 * @param alone   the same database, opened alone
 */
std::map<std::string, TableSchema> TableSchemasOf(
    const SQLite::Database& connection, const char* schema, const SQLite::Database& alone);

/** The statements of indexes, triggers and views by type and name. */
std::map<std::pair<std::string, std::string>, std::string> DefinitionsOf(
    const SQLite::Database& connection, const char* schema);

/** Whether a column of the primary key is NULL in some row, which SQLite allows in tables with row ids. */
bool HasNullKey(const SQLite::Database& connection, const char* schema, const std::string& table,
    const std::vector<KeyColumn>& key);

} // namespace tarn::publisher

#endif
