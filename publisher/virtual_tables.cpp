#include "publisher/virtual_tables.h"

#include "base/text.h"
#include "publisher/publish_error.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

#include <algorithm>
#include <cctype>
#include <cstdint>

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

std::vector<std::string> RTreesOf(const SQLite::Database& database) {
	std::vector<std::string> names;
	for (const VirtualTable& table : VirtualTablesOf(database)) {
		if (table.IsRTree()) {
			names.push_back(table.name);
		}
	}
	return names;
}

struct Row {
	std::int64_t id = 0;
	std::string values; // as SQL writes them
};

/** The rows of an R*Tree in the order of their ids. */
class Rows {
public:
	Rows(const SQLite::Database& database, const std::string& table) : query_(database, Query(database, table)) {
		Next();
	}

	const std::optional<Row>& Current() const { return row_; }
	void Next() {
		row_.reset();
		if (query_.executeStep()) {
			row_ = Row{query_.getColumn(0).getInt64(), query_.getColumn(1).getString()};
		}
	}

private:
	static std::string Query(const SQLite::Database& database, const std::string& table) {
		SQLite::Statement columns(database, "SELECT name FROM pragma_table_info(?) ORDER BY cid");
		columns.bind(1, table);
		std::string values;
		while (columns.executeStep()) {
			values += (values.empty() ? "" : " || ',' || ") + ("quote(" + QuotedName(columns.getColumn(0)) + ")");
		}
		return "SELECT rowid, " + values + " FROM " + QuotedName(table) + " ORDER BY rowid";
	}

	SQLite::Statement query_;
	std::optional<Row> row_;
};

void WriteChanges(Rows& before, Rows& after, const std::string& table, std::ostream& script) {
	while (before.Current() || after.Current()) {
		const bool has_before = before.Current() && (!after.Current() || before.Current()->id <= after.Current()->id);
		const bool has_after = after.Current() && (!before.Current() || after.Current()->id <= before.Current()->id);
		const bool differs = !has_before || !has_after || before.Current()->values != after.Current()->values;
		if (has_before) {
			if (differs) {
				script << "DELETE FROM " << table << " WHERE rowid=" << before.Current()->id << ";\n";
			}
			before.Next();
		}
		if (has_after) {
			if (differs) {
				script << "INSERT INTO " << table << " VALUES(" << after.Current()->values << ");\n";
			}
			after.Next();
		}
	}
}

} // namespace

std::string QuotedName(const std::string& name) {
	std::string quoted = "\"";
	for (const char byte : name) {
		quoted += byte;
		if (byte == '"') {
			quoted += byte;
		}
	}
	return quoted + "\"";
}

std::vector<VirtualTable> VirtualTablesOf(const SQLite::Database& database) {
	std::vector<VirtualTable> tables;
	SQLite::Statement list(database, "SELECT name, sql FROM sqlite_schema WHERE type = 'table' AND "
	                                 "sql LIKE 'CREATE VIRTUAL TABLE%' ORDER BY name");
	while (list.executeStep()) {
		tables.push_back({list.getColumn(0).getString(), ModuleOf(list.getColumn(1).getString())});
	}
	return tables;
}

std::optional<std::string> FindVirtualTableObstacle(const SQLite::Database& database) {
	for (const VirtualTable& table : VirtualTablesOf(database)) {
		if (!table.IsFullText() && !table.IsRTree()) {
			return "the table " + table.name + " is a virtual one of " + table.module;
		}
		// The index can only be compared with rows of its own table.
		const std::string rows = table.name + "_content";
		if (table.IsFullText() && (!HasTable(database, rows) || HasColumn(database, rows, "langid"))) {
			return "the table " + table.name + " does not hold the text of its rows alone";
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

bool HasRTrees(const std::string& database) {
	return !RTreesOf(SQLite::Database(database, SQLite::OPEN_READWRITE)).empty();
}

void DropRTrees(const std::string& database) {
	SQLite::Database file(database, SQLite::OPEN_READWRITE);
	for (const std::string& table : RTreesOf(file)) {
		file.exec("DROP TABLE " + QuotedName(table));
	}
}

void WriteRTreeChanges(const std::string& before, const std::string& after, std::ostream& script) {
	const SQLite::Database one(before, SQLite::OPEN_READWRITE);
	const SQLite::Database other(after, SQLite::OPEN_READWRITE);
	for (const std::string& table : RTreesOf(other)) {
		Rows old_rows(one, table);
		Rows new_rows(other, table);
		WriteChanges(old_rows, new_rows, QuotedName(table), script);
	}
}

} // namespace tarn::publisher
