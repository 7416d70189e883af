/** @file Rows as two versions of a database hold them. */
#ifndef PUBLISHER_SQLITE_DATABASE_PAIR_H
#define PUBLISHER_SQLITE_DATABASE_PAIR_H

#include "publisher/sqlite/row_match.h"
#include "publisher/sqlite/sql_text.h"
#include "publisher/sqlite/table_shape.h"

#include <SQLiteCpp/SQLiteCpp.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tarn::publisher {

/** Both versions of a database, each a schema of one connection that reads nothing beside their files. */
struct DatabasePair : SQLite::Database {
	DatabasePair(const std::string& before, const std::string& after);

	static constexpr const char* kBefore = "main";
	static constexpr const char* kAfter = "next";
};

/** Reads these columns of the rows of a version whose keys the other version lacks, in the order of their keys. */
void ForEachOnlyIn(const DatabasePair& pair, const char* schema, const TableShape& shape,
    const std::vector<std::string>& columns, const std::function<void(const RowKey& key, const SqlRow& row)>& take);

/** Rows of both versions that differ, with their numbers among these, in the order of their keys before. */
void ForEachChanged(const DatabasePair& pair, const TableShape& shape,
    const std::function<void(std::uint64_t number, const RowKey& key, const SqlRow& before, const SqlRow& after)>&
        take);

/** The values of a row from a column on. */
SqlRow RowOf(const SQLite::Statement& statement, std::size_t first, std::size_t count);

/** A hash of some of a row's values, the same for numbers that are equal for SQL. */
std::uint64_t KeyHash(const SqlRow& row, const std::vector<std::size_t>& columns);

/** One row of an ordinary table by its row id. */
class RowReader {
public:
	RowReader(const DatabasePair& pair, const char* schema, const TableShape& shape);
	SqlRow Read(std::int64_t id);

private:
	SQLite::Statement query_;
	std::size_t width_;
};

/** @param table  its name as SQL writes it */
std::uint64_t CountRows(const DatabasePair& pair, const char* schema, const std::string& table);

/** What matching needs to know of all rows of an ordinary table, in the order of their row ids. */
RowPrints ReadPrints(const DatabasePair& pair, const char* schema, const TableShape& shape);

} // namespace tarn::publisher

#endif
