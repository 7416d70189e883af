/** @file The statements that change a table's rows, as few and short as their rows allow. */
#ifndef PUBLISHER_SQLITE_CHANGE_WRITER_H
#define PUBLISHER_SQLITE_CHANGE_WRITER_H

#include "publisher/sqlite/database_pair.h"
#include "publisher/sqlite/sql_text.h"
#include "publisher/sqlite/table_shape.h"

#include <cstdint>
#include <ostream>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace tarn::publisher {

/**
 * Writes the changes of a table, one statement on each line. Calls of one kind that follow each other share statements;
 * Flush() ends them, and so does a call of another kind.
 */
class ChangeWriter {
public:
	ChangeWriter(const TableShape& shape, std::ostream& script) : shape_(shape), script_(script) {}

	void Delete(const RowKey& key);
	/** Sets the columns that differ. */
	void Update(const RowKey& key, const SqlRow& before, const SqlRow& after);
	/** @param key  is ignored where the columns say it */
	void Insert(const RowKey& key, const SqlRow& row);
	/** Writes a whole statement as it is. */
	void Write(const std::string& statement);
	void Flush();

	/**
	 * A condition that holds before the changes and not after them; empty as long as executing the statements twice
	 * would do no harm.
	 */
	const std::string& Guard() const { return guard_; }
	void SetGuard(const std::string& guard) { guard_ = guard; }

private:
	enum class Kind { kNone, kDelete, kUpdate, kInsert };

	void Begin(Kind kind);
	void FlushUpdates();
	std::string Where(const std::vector<std::string>& keys) const;

	const TableShape& shape_;
	std::ostream& script_;
	Kind kind_ = Kind::kNone;
	std::vector<std::string> items_; // keys to delete, or rows to insert
	std::vector<std::string> sets_;  // in the order of their first rows
	std::unordered_map<std::string, std::vector<std::string>> keys_by_set_;
	std::size_t pending_ = 0; // bytes of what is not written yet
	std::string guard_;
};

/** What a condition says of the row that a key names: "id=5". */
std::string KeyCondition(const TableShape& shape, const RowKey& key);

/** A condition on a column that is true for one value and false for the other, which differs. */
std::string Distinction(const std::string& column, const SqlValue& before, const SqlValue& after);

/** "EXISTS(SELECT 1 FROM table WHERE condition)". */
std::string RowExists(const TableShape& shape, const std::string& condition);

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
