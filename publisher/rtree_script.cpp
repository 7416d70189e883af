#include "publisher/rtree_script.h"

#include "publisher/virtual_tables.h"

#include <SQLiteCpp/SQLiteCpp.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

namespace tarn::publisher {

namespace {

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

/** Rows of an R*Tree in the order of their ids. */
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
