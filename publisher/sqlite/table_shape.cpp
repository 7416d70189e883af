#include "publisher/sqlite/table_shape.h"

#include "base/text.h"
#include "publisher/common/publish_error.h"
#include "publisher/sqlite/sql_text.h"
#include "publisher/sqlite/virtual_tables.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <SQLiteCpp/VariadicBind.h>

#include <algorithm>
#include <cstring>
#include <numeric>

namespace tarn::publisher {

namespace {

/** The columns that statements may set, and their places among them by the numbers that SQLite gives. */
struct Columns {
	std::vector<std::string> names;
	std::map<int, std::size_t> places;
	std::map<int, std::size_t> key; // by the order within the primary key
	bool has_integer_key = false;   // one column of the type INTEGER
};

Columns ColumnsOf(const SQLite::Database& database, const std::string& table) {
	Columns columns;
	SQLite::Statement list(database, "SELECT cid, name, pk, upper(type) = 'INTEGER' FROM pragma_table_xinfo(?) "
	                                 "WHERE hidden = 0 ORDER BY cid"); // generated columns are hidden ones
	list.bind(1, table);
	bool is_integer = false;
	while (list.executeStep()) {
		columns.places[list.getColumn(0)] = columns.names.size();
		if (const int place = list.getColumn(2); place > 0) {
			columns.key[place] = columns.names.size();
			is_integer = list.getColumn(3).getInt() != 0;
		}
		columns.names.push_back(NameInScript(list.getColumn(1).getString()));
	}
	columns.has_integer_key = columns.key.size() == 1 && is_integer;
	return columns;
}

std::vector<std::size_t> AllOf(const Columns& columns) {
	std::vector<std::size_t> all(columns.names.size());
	std::iota(all.begin(), all.end(), 0);
	return all;
}

UniqueColumns UniqueOf(const SQLite::Database& database, const std::string& index, const Columns& columns) {
	UniqueColumns unique = {{}, true};
	SQLite::Statement list(database, "SELECT cid, coll FROM pragma_index_xinfo(?) WHERE key = 1");
	list.bind(1, index);
	while (list.executeStep()) {
		const auto place = columns.places.find(list.getColumn(0).getInt());
		if (place == columns.places.end()) { // an expression, or a generated column
			return {AllOf(columns), false};
		}
		unique.columns.push_back(place->second);
		unique.by_value = unique.by_value && list.getColumn(1).getString() == "BINARY";
	}
	return unique;
}

/** A query of an attached database, whose name "@" stands for. */
std::string InSchema(const char* schema, std::string query) {
	return query.replace(query.find('@'), 1, schema);
}

/** The collations of the primary key's columns; none for a row id, which has no index. */
std::map<std::string, std::string> CollationsOf(
    const SQLite::Database& connection, const char* schema, const std::string& table) {
	SQLite::Statement list(connection, "SELECT column.name, column.coll FROM pragma_index_list(?1, ?2) AS list, "
	                                   "pragma_index_xinfo(list.name, ?2) AS column "
	                                   "WHERE list.origin = 'pk' AND column.key = 1 AND column.name IS NOT NULL");
	SQLite::bind(list, table, schema);
	std::map<std::string, std::string> collations;
	while (list.executeStep()) {
		collations[list.getColumn(0).getText()] = list.getColumn(1).getText();
	}
	return collations;
}

void AddColumns(const SQLite::Database& connection, const char* schema, const std::string& table, TableSchema& to) {
	const std::map<std::string, std::string> collations = CollationsOf(connection, schema, table);
	SQLite::Statement list(
	    connection, "SELECT name, type, pk FROM pragma_table_xinfo(?, ?) WHERE hidden = 0 ORDER BY cid");
	SQLite::bind(list, table, schema);
	std::map<int, KeyColumn> key;
	while (list.executeStep()) {
		const std::string name = list.getColumn(0).getText();
		if (const int place = list.getColumn(2).getInt(); place > 0) {
			const auto collation = collations.find(name);
			key[place] = {
			    name, list.getColumn(1).getText(), collation == collations.end() ? "BINARY" : collation->second};
		}
		to.columns.push_back(name);
	}
	for (const auto& [place, column] : key) {
		to.key.push_back(column);
	}
}

/** Table names and types; of virtual tables also those whose module is not built in, which SQLite does not list. */
std::map<std::string, TableSchema> NamedTables(
    const SQLite::Database& connection, const char* schema, const SQLite::Database& alone) {
	std::map<std::string, TableSchema> tables;
	SQLite::Statement list(connection,
	    InSchema(schema, "SELECT list.name, made.sql FROM pragma_table_list AS list JOIN @.sqlite_schema AS made "
	                     "ON made.type = 'table' AND made.name = list.name WHERE list.schema = ? AND "
	                     "list.type = 'table' AND list.name NOT LIKE 'sqlite\\_%' ESCAPE '\\'"));
	list.bind(1, schema);
	while (list.executeStep()) {
		tables[list.getColumn(0).getText()].sql = list.getColumn(1).getText();
	}
	for (const VirtualTable& table : VirtualTablesOf(alone)) {
		TableSchema& made = tables[table.name];
		made.is_virtual = true;
		made.sql = table.sql;
		made.obstacle = FindVirtualTableObstacle(alone, table).value_or("");
	}
	return tables;
}

} // namespace

std::string AloneUri(const std::string& path) {
	std::string uri = "file:";
	for (const char byte : path) {
		if (std::strchr("?#%", byte) != nullptr && byte != '\0') {
			const auto value = static_cast<unsigned char>(byte);
			uri += '%' + Hex(&value, 1);
		} else {
			uri += byte;
		}
	}
	return uri + "?immutable=1";
}

std::vector<Table> TablesOf(const SQLite::Database& database) {
	std::vector<Table> tables;
	SQLite::Statement list(database, "SELECT name, wr FROM pragma_table_list WHERE schema = 'main' AND type = 'table' "
	                                 "AND name NOT IN ('sqlite_schema', 'sqlite_master') ORDER BY name");
	while (list.executeStep()) {
		tables.push_back({list.getColumn(0).getString(), list.getColumn(1).getInt() != 0});
	}
	return tables;
}

std::optional<std::string> RowIdName(const SQLite::Database& database, const std::string& table) {
	for (const char* name : {"rowid", "_rowid_", "oid"}) {
		SQLite::Statement taken(database, "SELECT 1 FROM pragma_table_xinfo(?) WHERE lower(name) = ?");
		SQLite::bind(taken, table, name);
		if (!taken.executeStep()) {
			return name;
		}
	}
	return std::nullopt;
}

std::vector<std::string> TableShape::KeyNames() const {
	if (!row_id.empty()) {
		return {row_id};
	}
	std::vector<std::string> names;
	std::transform(key.begin(), key.end(), std::back_inserter(names), [this](std::size_t at) { return columns[at]; });
	return names;
}

TableShape ShapeOf(const SQLite::Database& database, const Table& table) {
	const Columns columns = ColumnsOf(database, table.name);
	TableShape shape;
	shape.name = NameInScript(table.name);
	shape.columns = columns.names;
	SQLite::Statement indexes(database, "SELECT name, origin FROM pragma_index_list(?) WHERE \"unique\" ORDER BY name");
	indexes.bind(1, table.name);
	bool has_key_index = false;
	while (indexes.executeStep()) {
		const bool is_key = indexes.getColumn(1).getString() == "pk";
		has_key_index = has_key_index || is_key;
		if (!is_key || !table.without_rowid) {
			shape.uniques.push_back(UniqueOf(database, indexes.getColumn(0), columns));
		}
	}
	if (table.without_rowid) {
		std::transform(columns.key.begin(), columns.key.end(), std::back_inserter(shape.key),
		    [](const auto& entry) { return entry.second; });
	} else if (const std::optional<std::string> name = RowIdName(database, table.name)) {
		shape.row_id = *name;
	} else {
		throw PublishError("columns hide the row ids of " + Printable(table.name));
	}
	if (columns.has_integer_key && !has_key_index) {
		shape.alias = columns.key.begin()->second;
	}
	return shape;
}

TableShape ShapeOfVirtual(const SQLite::Database& database, const std::string& table, bool is_rtree) {
	const Columns columns = ColumnsOf(database, table);
	TableShape shape;
	shape.name = NameInScript(table);
	shape.columns = columns.names;
	shape.row_id = RowIdName(database, table).value_or("rowid");
	if (is_rtree) {
		shape.alias = 0;
		shape.uniques.push_back({AllOf(columns), false});
	}
	return shape;
}

std::map<std::string, TableSchema> TableSchemasOf(
    const SQLite::Database& connection, const char* schema, const SQLite::Database& alone) {
	std::map<std::string, TableSchema> tables = NamedTables(connection, schema, alone);
	for (auto& [name, table] : tables) {
		if (table.obstacle.empty()) {
			AddColumns(connection, schema, name, table);
		}
	}
	return tables;
}

std::map<std::pair<std::string, std::string>, std::string> DefinitionsOf(
    const SQLite::Database& connection, const char* schema) {
	SQLite::Statement list(connection,
	    InSchema(schema, "SELECT type, name, sql FROM @.sqlite_schema WHERE type <> 'table' AND sql IS NOT NULL"));
	std::map<std::pair<std::string, std::string>, std::string> definitions;
	while (list.executeStep()) {
		definitions[{list.getColumn(0).getText(), list.getColumn(1).getText()}] = list.getColumn(2).getText();
	}
	return definitions;
}

bool HasNullKey(const SQLite::Database& connection, const char* schema, const std::string& table,
    const std::vector<KeyColumn>& key) {
	std::vector<std::string> parts;
	std::transform(key.begin(), key.end(), std::back_inserter(parts),
	    [](const KeyColumn& column) { return QuotedName(column.name) + " IS NULL"; });
	return SQLite::Statement(connection, "SELECT 1 FROM " + std::string(schema) + "." + QuotedName(table) + " WHERE " +
	                                         Joined(parts, " OR ") + " LIMIT 1")
	    .executeStep();
}

} // namespace tarn::publisher
