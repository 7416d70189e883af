#include "publisher/sqlite/row_reader.h"

#include "publisher/sqlite/table_changes.h"

#include <algorithm>

namespace tarn::publisher {

namespace {

/** The columns by which rows are found again whose content has changed. */
const std::vector<std::size_t>* KeyColumns(const TableShape& shape) {
	const auto key = std::find_if(shape.uniques.begin(), shape.uniques.end(),
	    [&shape](const UniqueColumns& unique) { return unique.columns.size() < shape.columns.size(); });
	return key == shape.uniques.end() ? nullptr : &key->columns;
}

bool HasNull(const SqlRow& row, const std::vector<std::size_t>& columns) {
	return std::any_of(columns.begin(), columns.end(), [&row](std::size_t at) { return row[at].type == SQLITE_NULL; });
}

} // namespace

RowReader::RowReader(const DatabasePair& pair, const char* schema, const TableShape& shape)
    : query_(pair.Connection(), "SELECT " + ColumnList("", shape.columns) + " FROM " + schema + "." + shape.name +
                                    " WHERE " + shape.row_id + "=?"),
      width_(shape.columns.size()) {}

SqlRow RowReader::Read(std::int64_t id) {
	query_.reset();
	query_.bind(1, id);
	query_.executeStep();
	return RowOf(query_, 0, width_);
}

std::uint64_t CountRows(const DatabasePair& pair, const char* schema, const TableShape& shape) {
	SQLite::Statement count(pair.Connection(), std::string("SELECT count(*) FROM ") + schema + "." + shape.name);
	count.executeStep();
	return static_cast<std::uint64_t>(count.getColumn(0).getInt64());
}

std::size_t SizeBefore(const DatabasePair& pair) {
	SQLite::Statement size(pair.Connection(), "SELECT page_count * page_size FROM pragma_page_count, pragma_page_size");
	size.executeStep();
	return static_cast<std::size_t>(size.getColumn(0).getInt64());
}

RowPrints ReadPrints(const DatabasePair& pair, const char* schema, const TableShape& shape) {
	const std::vector<std::size_t>* key = KeyColumns(shape);
	SQLite::Statement rows(pair.Connection(), "SELECT " + shape.row_id + "," + ColumnList("", shape.columns) +
	                                              " FROM " + schema + "." + shape.name + " NOT INDEXED ORDER BY " +
	                                              shape.row_id);
	RowPrints prints;
	while (rows.executeStep()) {
		SqlRow row = RowOf(rows, 1, shape.columns.size());
		RowPrint print;
		print.id = rows.getColumn(0).getInt64();
		print.key = key == nullptr || HasNull(row, *key) ? 0 : KeyHash(row, *key);
		if (shape.alias) {
			row[*shape.alias] = {};
		}
		print.content = ContentHash(row);
		prints.push_back(print);
	}
	return prints;
}

} // namespace tarn::publisher
