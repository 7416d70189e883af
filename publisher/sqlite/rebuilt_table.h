/** @file The changes of a table that was made again, so that its rows have other row ids. */
#ifndef PUBLISHER_SQLITE_REBUILT_TABLE_H
#define PUBLISHER_SQLITE_REBUILT_TABLE_H

#include "publisher/sqlite/change_writer.h"
#include "publisher/sqlite/database_pair.h"
#include "publisher/sqlite/row_match.h"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

namespace tarn::publisher {

/**
 * An ordinary table with row ids whose rows are told apart by what they hold. The statements give the rows that stay
 * their new row ids by a few statements: first they get negative ids, so that none is in another's way.
 */
class RebuiltTable {
public:
	RebuiltTable(const DatabasePair& pair, const TableShape& shape)
	    : pair_(pair),
	      shape_(shape),
	      before_reader_(pair, DatabasePair::kBefore, shape),
	      after_reader_(pair, DatabasePair::kAfter, shape) {}

	/**
	 * Matches the rows; must come first.
	 *
	 * @param memory  how many bytes this may take, more or less
	 * @return whether rows have other ids, so that it is worth writing statements
	 */
	[[nodiscard]] bool Match(std::uint64_t memory);
	void Write(ChangeWriter& writer);

private:
	/** Rows that follow each other before, and whose ids change by the same number. */
	struct Run {
		std::size_t first;
		std::size_t last;
	};

	std::int64_t NewId(std::size_t before) const { return after_[match_->After(before)].id; }
	bool Stays(std::size_t before) const { return match_->After(before) != kNoRow && reinserted_.count(before) == 0; }
	SqlRow Before(std::size_t at) { return before_reader_.Read(before_[at].id); }
	SqlRow After(std::size_t at) { return after_reader_.Read(after_[at].id); }
	std::size_t Likeness(std::size_t before, std::size_t after);
	template<typename Take>
	void ForEachChanged(const Take& take);

	void SetGuard(ChangeWriter& writer);
	void WriteDeletions(ChangeWriter& writer) const;
	void WriteUpdates(ChangeWriter& writer);
	void WriteInsertions(ChangeWriter& writer);
	void WriteStrays(std::size_t first, ChangeWriter& writer) const;
	void WriteNewIds(std::size_t first, ChangeWriter& writer) const;
	std::vector<Run> RunsFrom(std::size_t first) const;
	void WriteNegativeIds(std::size_t first, ChangeWriter& writer) const;
	void WriteFilling(std::size_t first, ChangeWriter& writer) const;
	/** The statement that gives rows with negative ids, in their order, the ids that are free where they belong. */
	std::string FillingStatement(const Run& part) const;
	/** How many rows one statement may move, so that it takes little memory. */
	std::size_t RowsPerStatement() const;

	const DatabasePair& pair_;
	const TableShape& shape_;
	std::size_t file_bytes_ = 0;
	RowPrints before_;
	RowPrints after_;
	RowReader before_reader_;
	RowReader after_reader_;
	std::optional<RowMatch> match_;
	std::unordered_set<std::uint64_t> reinserted_;
};

} // namespace tarn::publisher

#endif
