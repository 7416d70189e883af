/** @file The rows of an ordinary table with row ids, one by one or in short. */
#ifndef PUBLISHER_SQLITE_ROW_READER_H
#define PUBLISHER_SQLITE_ROW_READER_H

#include "publisher/sqlite/row_match.h"
#include "publisher/sqlite/sql_text.h"
#include "publisher/sqlite/table_pair.h"

#include <cstddef>
#include <cstdint>

namespace tarn::publisher {

/** One row of a table by its row id. */
class RowReader {
public:
	RowReader(const DatabasePair& pair, const char* schema, const TableShape& shape);
	SqlRow Read(std::int64_t id);

private:
	SQLite::Statement query_;
	std::size_t width_;
};

std::uint64_t CountRows(const DatabasePair& pair, const char* schema, const TableShape& shape);
/** Bytes of the database file before. */
std::size_t SizeBefore(const DatabasePair& pair);

/** What matching needs to know of all rows, in the order of their ids. */
RowPrints ReadPrints(const DatabasePair& pair, const char* schema, const TableShape& shape);

} // namespace tarn::publisher

#endif
