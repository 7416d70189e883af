/** @file Names and values as SQL writes them, each within one line. */
#ifndef PUBLISHER_SQLITE_SQL_TEXT_H
#define PUBLISHER_SQLITE_SQL_TEXT_H

#include <SQLiteCpp/Column.h>
#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tarn::publisher {

/** A value as a row holds it. Two values are the same when they have one type and the same bits. */
struct SqlValue {
	int type = SQLITE_NULL;
	std::int64_t integer = 0; // of a real: its bits
	std::string bytes;        // of a text or a blob

	bool operator==(const SqlValue& other) const {
		return type == other.type && integer == other.integer && bytes == other.bytes;
	}
	bool operator!=(const SqlValue& other) const { return !(*this == other); }
	double Real() const;
};

using SqlRow = std::vector<SqlValue>;

/** What tells a row apart: its row id, or the values of the primary key. */
using RowKey = SqlRow;

SqlValue ValueOf(const SQLite::Column& column);

/** Names or expressions with something between them, and a prefix before each. */
std::string Joined(const std::vector<std::string>& parts, const char* between = ",", const char* prefix = "");

/** A decimal number of so many significant digits. */
std::string Digits(int precision, double value);

/** A name in double quotes, as SQL writes it. */
std::string QuotedName(const std::string& name);
/** A name in quotes only where SQL needs them; throws PublishError for a name with a line break. */
std::string NameInScript(const std::string& name);

/**
 * A value as an expression without line breaks and zero bytes. A real that needs more than 15 digits is written as a
 * quotient of two numbers that every SQLite reads alike, because the last digits of a decimal number are read in
 * different ways on different processors.
 */
std::string Literal(const SqlValue& value);

/** The shortest expression for a column's new value: the literal, or an edit of the column's old text or blob. */
std::string NewValue(const std::string& column, const SqlValue& before, const SqlValue& after);

} // namespace tarn::publisher

#endif
