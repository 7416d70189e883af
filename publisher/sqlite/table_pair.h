/** @file A table as two versions of a database hold it. */
#ifndef PUBLISHER_SQLITE_TABLE_PAIR_H
#define PUBLISHER_SQLITE_TABLE_PAIR_H

#include "publisher/sqlite/change_writer.h"
#include "publisher/sqlite/table_shape.h"

#include <SQLiteCpp/SQLiteCpp.h>

#include <cstdint>
#include <functional>
#include <string>

namespace tarn::publisher {

/** Both versions of a database, opened together and read alone. */
class DatabasePair {
public:
	DatabasePair(const std::string& before, const std::string& after);

	const SQLite::Database& Connection() const { return connection_; }

	static constexpr const char* kBefore = "main";
	static constexpr const char* kAfter = "next";

private:
	SQLite::Database connection_;
};

/**
 * A table whose rows are told apart by the same key in both versions. Calls give rows in the order of their keys in the
 * table before, or after for rows that are only there.
 */
class TablePair {
public:
	TablePair(const DatabasePair& pair, const TableShape& shape) : pair_(pair), shape_(shape) {}

	void ForEachGone(const std::function<void(const RowKey& key)>& take) const;
	/** The same with the values that are gone. */
	void ForEachGoneRow(const std::function<void(const RowKey& key, const SqlRow& row)>& take) const;
	void ForEachNew(const std::function<void(const RowKey& key, const SqlRow& row)>& take) const;
	/** Rows of both that differ, with their numbers among these. */
	void ForEachChanged(
	    const std::function<void(std::uint64_t number, const RowKey& key, const SqlRow& before, const SqlRow& after)>&
	        take) const;

private:
	std::string SameKey() const;
	/** The rows of one version whose keys the other version lacks. */
	void ForEachOnlyIn(const char* schema, const char* other,
	    const std::function<void(const RowKey& key, const SqlRow& row)>& take) const;

	const DatabasePair& pair_;
	const TableShape& shape_;
};

/** The values of a row from a column on. */
SqlRow RowOf(const SQLite::Statement& statement, std::size_t first, std::size_t count);

/** Names with a prefix each, between commas. */
std::string ColumnList(const std::string& prefix, const std::vector<std::string>& names);

} // namespace tarn::publisher

#endif
