#include "publisher/sqlite/sqlite_content.h"

#include "base/text.h"
#include "publisher/common/files.h"
#include "publisher/common/publish_error.h"
#include "publisher/sqlite/sql_text.h"
#include "publisher/sqlite/table_shape.h"
#include "publisher/sqlite/virtual_tables.h"

#include <SQLiteCpp/SQLiteCpp.h>

#include <array>
#include <string_view>
#include <utility>
#include <vector>

namespace tarn::publisher {

namespace {

/** A database's header; no value when the file is no database. */
std::optional<std::string> ReadHeader(const std::string& path) {
	constexpr std::size_t kHeaderSize = 100;
	constexpr std::string_view kMagic("SQLite format 3\0", 16);
	InputFile file(path);
	const std::string_view begin = file.Next();
	const bool is_database = begin.size() >= kHeaderSize && StartsWith(begin, kMagic);
	return is_database ? std::optional<std::string>(begin.substr(0, kHeaderSize)) : std::nullopt;
}

/** A field of the header that no statement about rows changes. */
struct Setting {
	const char* name;
	std::size_t offset;
	std::size_t size;
	bool is_flag = false; // only whether it is zero matters
};
constexpr std::array<Setting, 10> kSettings = {
    {{"page size", 16, 2}, {"journal mode", 18, 2}, {"reserved space", 20, 1}, {"schema format", 44, 4},
        {"default cache size", 48, 4}, {"text encoding", 56, 4}, {"user version", 60, 4}, {"application id", 68, 4},
        {"auto vacuum", 52, 4, true}, // a page's number, which differs as the file grows
        {"incremental vacuum", 64, 4, true}}};
constexpr Setting kEncoding = {"text encoding", 56, 4};
constexpr std::size_t kReadMode = 19;
constexpr std::size_t kReservedSpace = 20;

std::string_view Field(const std::string& header, const Setting& setting) {
	return std::string_view(header).substr(setting.offset, setting.size);
}

bool IsZero(std::string_view field) {
	return field.find_first_not_of('\0') == std::string_view::npos;
}

std::optional<std::string> FindSettingDifference(const std::string& before, const std::string& after) {
	for (const Setting& setting : kSettings) {
		const std::string_view one = Field(before, setting);
		const std::string_view other = Field(after, setting);
		if (setting.is_flag ? IsZero(one) != IsZero(other) : one != other) {
			return std::string("the databases differ in their ") + setting.name;
		}
	}
	if (Field(after, kEncoding) != std::string_view("\0\0\0\1", 4)) {
		return "the database's text is not in UTF-8";
	}
	if (after[kReservedSpace] != 0) { // checksums, for example, which SQLite leaves as they are
		return "the database's pages hold bytes that are reserved for an extension";
	}
	return std::nullopt;
}

SQLite::Database OpenAlone(const std::string& path) {
	return {AloneUri(path), SQLite::OPEN_READONLY | SQLite::OPEN_URI};
}

std::uint64_t NumberOf(const SQLite::Database& database, const std::string& pragma) {
	SQLite::Statement query(database, "PRAGMA " + pragma);
	query.executeStep();
	return static_cast<std::uint64_t>(query.getColumn(0).getInt64());
}

/** Whether a file has bytes behind its last page, such as a signature, which statements do not change. */
bool HasTrailer(const std::string& path, const SQLite::Database& database) {
	return std::filesystem::file_size(path) != NumberOf(database, "page_count") * NumberOf(database, "page_size");
}

std::string_view BytesOf(const SQLite::Column& column) {
	const auto* bytes = static_cast<const char*>(column.getBlob());
	return {bytes, static_cast<std::size_t>(column.getBytes())};
}

/** Copies no texts and blobs, because every row of a database passes here. */
bool SameValue(const SQLite::Column& left, const SQLite::Column& right) {
	if (left.getType() != right.getType()) {
		return false;
	}
	const bool has_bytes = left.isText() || left.isBlob();
	return has_bytes ? BytesOf(left) == BytesOf(right) : ValueOf(left) == ValueOf(right);
}

bool SameRow(const SQLite::Statement& left, const SQLite::Statement& right) {
	for (int column = 0; column < left.getColumnCount(); ++column) {
		if (!SameValue(left.getColumn(column), right.getColumn(column))) {
			return false;
		}
	}
	return true;
}

/** Whether a query gives the same rows in both databases. */
bool SameResult(const SQLite::Database& left, const SQLite::Database& right, const std::string& query) {
	SQLite::Statement one(left, query);
	SQLite::Statement other(right, query);
	if (one.getColumnCount() != other.getColumnCount()) {
		return false;
	}
	while (one.executeStep()) {
		if (!other.executeStep() || !SameRow(one, other)) {
			return false;
		}
	}
	return !other.executeStep();
}

std::string RowsQuery(const SQLite::Database& database, const Table& table) {
	// SQLite would read an index that holds all columns instead of the table, and nobody would see damage in the other.
	const std::string source = " FROM " + QuotedName(table.name) + " NOT INDEXED";
	if (table.without_rowid) {
		return "SELECT *" + source;
	}
	const std::optional<std::string> row_id = RowIdName(database, table.name);
	if (!row_id) {
		throw PublishError("columns hide the row ids of " + table.name);
	}
	return "SELECT " + *row_id + ", *" + source + " ORDER BY " + *row_id;
}

constexpr const char* kSchemaQuery =
    "SELECT type, name, tbl_name, sql FROM sqlite_schema ORDER BY type, name, tbl_name";

std::optional<std::string> FindSchemaObstacle(const SQLite::Database& before, const SQLite::Database& after) {
	if (!SameResult(before, after, kSchemaQuery)) {
		return "the schema has changed";
	}
	if (SQLite::Statement(after, "SELECT 1 FROM sqlite_schema WHERE type = 'trigger'").executeStep()) {
		return "the database has triggers";
	}
	if (auto obstacle = FindVirtualTableObstacle(after)) {
		return obstacle;
	}
	for (const Table& table : TablesOf(after)) {
		RowsQuery(after, table); // throws for a table whose rows cannot be told apart
	}
	return std::nullopt;
}

/** The queries for everything that a database holds beside its schema, each with its table. */
std::vector<std::pair<std::string, std::string>> ContentQueries(const SQLite::Database& database) {
	std::vector<std::pair<std::string, std::string>> queries;
	for (const Table& table : TablesOf(database)) {
		queries.emplace_back(table.name, RowsQuery(database, table));
	}
	for (const VirtualTable& table : VirtualTablesOf(database)) {
		queries.emplace_back(table.name, RowsQuery(database, {table.name, false}));
		for (const std::string& query : QueriesBesideRows(database, table)) {
			queries.emplace_back(table.name, query);
		}
	}
	return queries;
}

} // namespace

bool IsSqliteFile(const std::string& path) {
	return ReadHeader(path).has_value();
}

bool IsInWalMode(const std::string& path) {
	constexpr char kWal = 2;
	const std::optional<std::string> header = ReadHeader(path);
	return header && (*header)[kReadMode] == kWal;
}

std::optional<std::string> FindScriptObstacle(const std::string& before, const std::string& after) {
	const std::optional<std::string> before_header = ReadHeader(before);
	const std::optional<std::string> after_header = ReadHeader(after);
	if (!before_header || !after_header) {
		return "it is no database in both versions";
	}
	if (auto difference = FindSettingDifference(*before_header, *after_header)) {
		return difference;
	}
	try {
		const SQLite::Database one = OpenAlone(before);
		const SQLite::Database other = OpenAlone(after);
		if (HasTrailer(before, one) || HasTrailer(after, other)) {
			return "a database file has bytes behind its last page";
		}
		return FindSchemaObstacle(one, other);
	} catch (const std::exception& error) {
		return std::string("the databases cannot be compared: ") + error.what();
	}
}

std::optional<std::string> FindContentDifference(const std::string& left, const std::string& right) {
	try {
		const SQLite::Database one = OpenAlone(left);
		const SQLite::Database other = OpenAlone(right);
		if (!SameResult(one, other, kSchemaQuery)) {
			return "the schemas differ";
		}
		if (auto obstacle = FindVirtualTableObstacle(one)) {
			return obstacle;
		}
		for (const auto& [table, query] : ContentQueries(one)) {
			if (!SameResult(one, other, query)) {
				return "the table " + table + " differs";
			}
		}
		return std::nullopt;
	} catch (const std::exception& error) {
		return std::string("the databases cannot be compared: ") + error.what();
	}
}

void RequireSoundDatabase(const std::string& path) {
	const SQLite::Database database = OpenAlone(path);
	SQLite::Statement check(database, "PRAGMA integrity_check(1)");
	check.executeStep();
	if (const std::string answer = check.getColumn(0).getString(); answer != "ok") {
		throw PublishError("the database is damaged: " + Printable(answer));
	}
}

} // namespace tarn::publisher
