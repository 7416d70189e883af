#include "publisher/sqlite/table_pair.h"

namespace tarn::publisher {

DatabasePair::DatabasePair(const std::string& before, const std::string& after)
    : connection_(AloneUri(before), SQLite::OPEN_READONLY | SQLite::OPEN_URI) {
	SQLite::Statement attach(connection_, std::string("ATTACH ? AS ") + kAfter);
	attach.bind(1, AloneUri(after));
	attach.exec();
}

SqlRow RowOf(const SQLite::Statement& statement, std::size_t first, std::size_t count) {
	SqlRow row;
	row.reserve(count);
	for (std::size_t i = first; i < first + count; ++i) {
		row.push_back(ValueOf(statement.getColumn(static_cast<int>(i))));
	}
	return row;
}

std::string ColumnList(const std::string& prefix, const std::vector<std::string>& names) {
	std::string list;
	for (const std::string& name : names) {
		list.append(list.empty() ? "" : ",").append(prefix).append(name);
	}
	return list;
}

std::string TablePair::SameKey() const {
	std::string condition;
	for (const std::string& name : shape_.KeyNames()) {
		condition.append(condition.empty() ? "" : " AND ").append("b.").append(name).append("=a.").append(name);
	}
	return condition;
}

void TablePair::ForEachGone(const std::function<void(const RowKey& key)>& take) const {
	const std::vector<std::string> names = shape_.KeyNames();
	const std::string keys = ColumnList("b.", names);
	SQLite::Statement rows(pair_.Connection(), "SELECT " + keys + " FROM main." + shape_.name +
	                                               " AS b WHERE NOT EXISTS(SELECT 1 FROM next." + shape_.name +
	                                               " AS a WHERE " + SameKey() + ") ORDER BY " + keys);
	while (rows.executeStep()) {
		take(RowOf(rows, 0, names.size()));
	}
}

void TablePair::ForEachOnlyIn(const char* schema, const char* other,
    const std::function<void(const RowKey& key, const SqlRow& row)>& take) const {
	const std::vector<std::string> names = shape_.KeyNames();
	const std::string keys = ColumnList("a.", names);
	SQLite::Statement rows(pair_.Connection(), "SELECT " + keys + "," + ColumnList("a.", shape_.columns) + " FROM " +
	                                               schema + "." + shape_.name +
	                                               " AS a WHERE NOT EXISTS(SELECT 1 FROM " + other + "." + shape_.name +
	                                               " AS b WHERE " + SameKey() + ") ORDER BY " + keys);
	while (rows.executeStep()) {
		take(RowOf(rows, 0, names.size()), RowOf(rows, names.size(), shape_.columns.size()));
	}
}

void TablePair::ForEachGoneRow(const std::function<void(const RowKey& key, const SqlRow& row)>& take) const {
	ForEachOnlyIn(DatabasePair::kBefore, DatabasePair::kAfter, take);
}

void TablePair::ForEachNew(const std::function<void(const RowKey& key, const SqlRow& row)>& take) const {
	ForEachOnlyIn(DatabasePair::kAfter, DatabasePair::kBefore, take);
}

void TablePair::ForEachChanged(
    const std::function<void(std::uint64_t number, const RowKey& key, const SqlRow& before, const SqlRow& after)>& take)
    const {
	const std::vector<std::string> names = shape_.KeyNames();
	const std::size_t width = shape_.columns.size();
	const std::string keys = ColumnList("b.", names);
	// The order of the tables is the one of the loops, so that no order of rows has to be made.
	SQLite::Statement rows(pair_.Connection(), "SELECT " + keys + "," + ColumnList("b.", shape_.columns) + "," +
	                                               ColumnList("a.", shape_.columns) + " FROM main." + shape_.name +
	                                               " AS b CROSS JOIN next." + shape_.name + " AS a ON " + SameKey() +
	                                               " ORDER BY " + keys);
	std::uint64_t number = 0;
	while (rows.executeStep()) {
		const SqlRow before = RowOf(rows, names.size(), width);
		const SqlRow after = RowOf(rows, names.size() + width, width);
		if (before != after) {
			take(number++, RowOf(rows, 0, names.size()), before, after);
		}
	}
}

} // namespace tarn::publisher
