/** @file Which rows of a table differ between two versions of a database, and examples of them. */
#ifndef PUBLISHER_SQLITE_ROW_CHANGES_H
#define PUBLISHER_SQLITE_ROW_CHANGES_H

#include "publisher/sqlite/database_changes.h"
#include "publisher/sqlite/database_pair.h"

#include <cstddef>
#include <string>
#include <vector>

namespace tarn::publisher {

/** A table of both versions, or of the one that has it. */
struct ComparedTable {
	std::string name;
	std::vector<std::string> columns; // that both versions have
	std::vector<std::string> key;     // columns that tell rows apart; "rowid" for a virtual table
	RowIdentity identity = RowIdentity::kKey;
};

/** How rows become examples. */
struct ExampleStyle {
	std::size_t most = 0; // of each operation
	bool is_utf8 = true;
};

/** Counts the rows that differ, and takes the first ones of each operation as examples. */
void CompareRows(const DatabasePair& pair, const ComparedTable& table, const ExampleStyle& style, TableChange& change);

/** Counts all rows of a table that only one version has. */
void CountAllRows(const DatabasePair& pair, const ComparedTable& table, const ExampleStyle& style, TableChange& change);

} // namespace tarn::publisher

#endif
