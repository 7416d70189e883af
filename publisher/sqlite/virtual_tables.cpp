#include "publisher/sqlite/virtual_tables.h"

#include "base/text.h"
#include "publisher/common/publish_error.h"
#include "publisher/sqlite/sql_text.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

#include <algorithm>
#include <cctype>

namespace tarn::publisher {

namespace {

/** SQLite tells the authorizer the module of a table that is about to be made. */
int NoteModule(void* module, int action, const char* /*table*/, const char* name, const char* /*database*/,
    const char* /*trigger*/) {
	if (action == SQLITE_CREATE_VTABLE && name != nullptr) {
		*static_cast<std::string*>(module) = name;
	}
	return SQLITE_OK;
}

std::string ModuleOf(const std::string& statement) {
	const SQLite::Database nothing(":memory:", SQLite::OPEN_READWRITE);
	std::string module;
	nothing.check(sqlite3_set_authorizer(nothing.getHandle(), NoteModule, &module));
	const SQLite::Statement prepared(nothing, statement); // and never executed
	std::transform(module.begin(), module.end(), module.begin(),
	    [](unsigned char byte) { return static_cast<char>(std::tolower(byte)); });
	return module;
}

bool HasTable(const SQLite::Database& database, const std::string& name) {
	SQLite::Statement query(database, "SELECT 1 FROM sqlite_schema WHERE type = 'table' AND name = ? COLLATE NOCASE");
	query.bind(1, name);
	return query.executeStep();
}

bool HasColumn(const SQLite::Database& database, const std::string& table, const std::string& column) {
	SQLite::Statement query(database, "SELECT 1 FROM pragma_table_info(?) WHERE name = ? COLLATE NOCASE");
	query.bind(1, table);
	query.bind(2, column);
	return query.executeStep();
}

[[noreturn]] void RefuseIndex(const VirtualTable& table, const std::string& why) {
	throw PublishError("the index of " + Printable(table.name) + " is not the one of its rows: " + why);
}

void RequireSoundIndex(const SQLite::Database& database, const VirtualTable& table) {
	if (table.IsRTree()) {
		SQLite::Statement check(database, "SELECT rtreecheck('main', ?)");
		check.bind(1, table.name);
		check.executeStep();
		if (const std::string answer = check.getColumn(0).getString(); answer != "ok") {
			RefuseIndex(table, answer.substr(0, answer.find('\n')));
		}
	} else {
		const std::string name = QuotedName(table.name);
		try {
			SQLite::Statement(database, "INSERT INTO " + name + "(" + name + ") VALUES('integrity-check')").exec();
		} catch (const SQLite::Exception& error) {
			RefuseIndex(table, error.what());
		}
	}
}

} // namespace

std::vector<VirtualTable> VirtualTablesOf(const SQLite::Database& database) {
	std::vector<VirtualTable> tables;
	SQLite::Statement list(database, "SELECT name, sql FROM sqlite_schema WHERE type = 'table' AND "
	                                 "sql LIKE 'CREATE VIRTUAL TABLE%' ORDER BY name");
	while (list.executeStep()) {
		const std::string sql = list.getColumn(1).getText(); // in UTF-8, whatever the database's encoding is
		tables.push_back({list.getColumn(0).getText(), ModuleOf(sql), sql});
	}
	return tables;
}

std::optional<std::string> FindVirtualTableObstacle(const SQLite::Database& database, const VirtualTable& table) {
	if (!table.IsFullText() && !table.IsRTree()) {
		return "the table " + table.name + " is a virtual one of " + table.module;
	}
	// The index can only be compared with rows of its own table.
	const std::string rows = table.name + "_content";
	if (table.IsFullText() && (!HasTable(database, rows) || HasColumn(database, rows, "langid"))) {
		return "the table " + table.name + " does not hold the text of its rows alone";
	}
	return std::nullopt;
}

std::optional<std::string> FindVirtualTableObstacle(const SQLite::Database& database) {
	for (const VirtualTable& table : VirtualTablesOf(database)) {
		if (auto obstacle = FindVirtualTableObstacle(database, table)) {
			return obstacle;
		}
	}
	return std::nullopt;
}

std::vector<std::string> QueriesBesideRows(const SQLite::Database& database, const VirtualTable& table) {
	std::vector<std::string> queries;
	const auto add = [&](const std::string& suffix, std::string query) {
		if (HasTable(database, table.name + suffix)) {
			queries.push_back(query.replace(query.find('@'), 1, QuotedName(table.name + suffix)));
		}
	};
	if (table.module == "fts5") {
		add("_config", "SELECT k, v FROM @ ORDER BY k");
		add("_docsize", "SELECT id, sz FROM @ ORDER BY id");
	} else if (table.IsFullText()) {
		add("_stat", "SELECT id, value FROM @ WHERE id <> 1 ORDER BY id"); // 1 is what a merge has left to do
		add("_docsize", "SELECT docid, size FROM @ ORDER BY docid");
	}
	return queries;
}

void RequireSoundIndexes(const std::string& path) {
	SQLite::Database database(path, SQLite::OPEN_READWRITE);
	const std::vector<VirtualTable> tables = VirtualTablesOf(database);
	if (tables.empty()) {
		return;
	}
	const SQLite::Transaction rolled_back(database);
	for (const VirtualTable& table : tables) {
		RequireSoundIndex(database, table);
	}
}

} // namespace tarn::publisher
