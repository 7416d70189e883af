#include "publisher/sqlite/database_pair.h"

#include <xxhash.h>

#include <algorithm>
#include <cmath>
#include <string_view>

namespace tarn::publisher {

namespace {

template<typename Number>
void AppendBytes(std::string& text, const Number& number) {
	text.append(reinterpret_cast<const char*>(&number), sizeof(number));
}

/** SQL holds 1 and 1.0 for equal. */
SqlValue Comparable(const SqlValue& value) {
	constexpr double kExact = 9007199254740992; // 2^53
	const double real = value.Real();
	const bool is_integral = value.type == SQLITE_FLOAT && std::abs(real) <= kExact && std::trunc(real) == real;
	return is_integral ? SqlValue{SQLITE_INTEGER, static_cast<std::int64_t>(real), {}} : value;
}

void AppendValue(std::string& text, const SqlValue& value) {
	AppendBytes(text, value.type);
	AppendBytes(text, value.integer);
	AppendBytes(text, value.bytes.size());
	text += value.bytes;
}

std::uint64_t HashOf(const std::string& text) {
	return XXH3_64bits(text.data(), text.size());
}

/** A hash of all values of a row, by type and exact bytes. */
std::uint64_t ContentHash(const SqlRow& row) {
	std::string text;
	std::for_each(row.begin(), row.end(), [&text](const SqlValue& value) { AppendValue(text, value); });
	return HashOf(text);
}

/** The columns by which rows are found again whose content has changed. */
const std::vector<std::size_t>* KeyColumns(const TableShape& shape) {
	const auto key = std::find_if(shape.uniques.begin(), shape.uniques.end(),
	    [&shape](const UniqueColumns& unique) { return unique.columns.size() < shape.columns.size(); });
	return key == shape.uniques.end() ? nullptr : &key->columns;
}

bool HasNull(const SqlRow& row, const std::vector<std::size_t>& columns) {
	return std::any_of(columns.begin(), columns.end(), [&row](std::size_t at) { return row[at].type == SQLITE_NULL; });
}

/** That rows of both versions, "a" and "b", have one key. */
std::string SameKey(const TableShape& shape) {
	std::vector<std::string> parts = shape.KeyNames();
	for (std::string& name : parts) {
		name += "=a." + name;
	}
	return Joined(parts, " AND ", "b.");
}

} // namespace

DatabasePair::DatabasePair(const std::string& before, const std::string& after)
    : SQLite::Database(AloneUri(before), SQLite::OPEN_READONLY | SQLite::OPEN_URI) {
	SQLite::Statement attach(*this, std::string("ATTACH ? AS ") + kAfter);
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

void ForEachOnlyIn(const DatabasePair& pair, const char* schema, const TableShape& shape,
    const std::vector<std::string>& columns, const std::function<void(const RowKey& key, const SqlRow& row)>& take) {
	std::vector<std::string> names = shape.KeyNames();
	const std::size_t key_width = names.size();
	const std::string keys = Joined(names, ",", "a.");
	names.insert(names.end(), columns.begin(), columns.end());
	const char* other = std::string_view(schema) == DatabasePair::kAfter ? DatabasePair::kBefore : DatabasePair::kAfter;
	SQLite::Statement rows(pair, "SELECT " + Joined(names, ",", "a.") + " FROM " + schema + "." + shape.name +
	                                 " AS a WHERE NOT EXISTS(SELECT 1 FROM " + other + "." + shape.name +
	                                 " AS b WHERE " + SameKey(shape) + ") ORDER BY " + keys);
	while (rows.executeStep()) {
		take(RowOf(rows, 0, key_width), RowOf(rows, key_width, columns.size()));
	}
}

void ForEachChanged(const DatabasePair& pair, const TableShape& shape,
    const std::function<void(std::uint64_t number, const RowKey& key, const SqlRow& before, const SqlRow& after)>&
        take) {
	const std::vector<std::string> names = shape.KeyNames();
	const std::size_t width = shape.columns.size();
	const std::string keys = Joined(names, ",", "b.");
	// The order of the tables is the one of the loops, so that no order of rows has to be made.
	SQLite::Statement rows(pair, "SELECT " + keys + "," + Joined(shape.columns, ",", "b.") + "," +
	                                 Joined(shape.columns, ",", "a.") + " FROM main." + shape.name +
	                                 " AS b CROSS JOIN next." + shape.name + " AS a ON " + SameKey(shape) +
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

std::uint64_t KeyHash(const SqlRow& row, const std::vector<std::size_t>& columns) {
	std::string text;
	for (const std::size_t at : columns) {
		AppendValue(text, Comparable(row[at]));
	}
	return HashOf(text);
}

RowReader::RowReader(const DatabasePair& pair, const char* schema, const TableShape& shape)
    : query_(pair,
          "SELECT " + Joined(shape.columns) + " FROM " + schema + "." + shape.name + " WHERE " + shape.row_id + "=?"),
      width_(shape.columns.size()) {}

SqlRow RowReader::Read(std::int64_t id) {
	query_.reset();
	query_.bind(1, id);
	query_.executeStep();
	return RowOf(query_, 0, width_);
}

std::uint64_t CountRows(const DatabasePair& pair, const char* schema, const std::string& table) {
	SQLite::Statement count(pair, std::string("SELECT count(*) FROM ") + schema + "." + table);
	count.executeStep();
	return static_cast<std::uint64_t>(count.getColumn(0).getInt64());
}

RowPrints ReadPrints(const DatabasePair& pair, const char* schema, const TableShape& shape) {
	const std::vector<std::size_t>* key = KeyColumns(shape);
	SQLite::Statement rows(pair, "SELECT " + shape.row_id + "," + Joined(shape.columns) + " FROM " + schema + "." +
	                                 shape.name + " NOT INDEXED ORDER BY " + shape.row_id);
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
