/** @file The statements that turn a table into its next version. */
#ifndef PUBLISHER_SQLITE_TABLE_CHANGES_H
#define PUBLISHER_SQLITE_TABLE_CHANGES_H

#include "publisher/sqlite/change_writer.h"
#include "publisher/sqlite/sql_text.h"
#include "publisher/sqlite/table_pair.h"

#include <cstdint>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace tarn::publisher {

/** A hash of some of a row's values, the same for numbers that are equal for SQL. */
std::uint64_t KeyHash(const SqlRow& row, const std::vector<std::size_t>& columns);
/** A hash of all values of a row, by type and exact bytes. */
std::uint64_t ContentHash(const SqlRow& row);

/**
 * Which changed rows cannot be updated, because another row still has what they must be the only ones to have: these
 * rows are deleted before all updates and inserted after them.
 */
class UniqueConflicts {
public:
	explicit UniqueConflicts(const TableShape& shape) : shape_(shape) {}

	void Add(std::uint64_t number, const SqlRow& before, const SqlRow& after);
	/** The numbers of the rows in conflict, when all changed rows have been added. */
	std::unordered_set<std::uint64_t> Find() const;

private:
	struct Claim {
		std::uint64_t number;
		std::uint64_t key;
	};

	const TableShape& shape_;
	std::unordered_set<std::uint64_t> conflicts_;
	std::unordered_set<std::uint64_t> taken_; // by changed rows, before
	std::vector<Claim> claims_;               // of changed rows, after
};

/** Writes statements for rows that are told apart by row id or primary key: deletions, updates, insertions. */
void WriteChangesInPlace(const DatabasePair& pair, const TableShape& shape, ChangeWriter& writer);

} // namespace tarn::publisher

#endif
