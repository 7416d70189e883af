/** @file What the schema of a database says of its tables: to statements that change rows, and to comparisons. */
#ifndef PUBLISHER_SQLITE_TABLE_SHAPE_H
#define PUBLISHER_SQLITE_TABLE_SHAPE_H

#include <SQLiteCpp/Database.h>

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace tarn::publisher {

/** The URI of a database file without what lies beside it, since the file alone is published; takes no locks. */
std::string AloneUri(const std::string& path);

struct Table {
	std::string name;
	bool without_rowid = false;
};

/** The tables that hold rows of their own, in the order of their names; not those that virtual tables keep. */
std::vector<Table> TablesOf(const SQLite::Database& database);

/** A name by which the row id can be read; no value when columns have all such names. */
std::optional<std::string> RowIdName(const SQLite::Database& database, const std::string& table);

/** Columns that no two rows may have in common. */
struct UniqueColumns {
	std::vector<std::size_t> columns;
	bool by_value = false; // whether two rows differ as soon as the columns' bytes do
};

struct TableShape {
	std::string name;                   // this and the others as scripts write names
	std::string row_id;                 // empty for a table WITHOUT ROWID
	std::vector<std::string> columns;   // that statements may set
	std::vector<std::size_t> key;       // the primary key's columns of a table WITHOUT ROWID
	std::optional<std::size_t> alias;   // the column that is the row id
	std::vector<UniqueColumns> uniques; // beside the key and the row id

	/** The names of what tells rows apart. */
	std::vector<std::string> KeyNames() const;
};

/** The shape of an ordinary table. */
TableShape ShapeOf(const SQLite::Database& database, const Table& table);
/** The shape of a full-text table or an R*Tree; rows of R*Trees are never updated. */
TableShape ShapeOfVirtual(const SQLite::Database& database, const std::string& table, bool is_rtree);

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
