#include "publisher/sqlite/table_schema.h"

#include "publisher/sqlite/sql_text.h"
#include "publisher/sqlite/virtual_tables.h"

#include <SQLiteCpp/SQLiteCpp.h>

#include <exception>

namespace tarn::publisher {

namespace {

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
	list.bind(1, table);
	list.bind(2, schema);
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
	list.bind(1, table);
	list.bind(2, schema);
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
	std::string condition;
	for (const KeyColumn& column : key) {
		condition += (condition.empty() ? "" : " OR ") + QuotedName(column.name) + " IS NULL";
	}
	return SQLite::Statement(connection,
	    "SELECT 1 FROM " + std::string(schema) + "." + QuotedName(table) + " WHERE " + condition + " LIMIT 1")
	    .executeStep();
}

} // namespace tarn::publisher
