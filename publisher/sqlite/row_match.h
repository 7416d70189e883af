/** @file Which row of a table that was made again is which row of the table before. */
#ifndef PUBLISHER_SQLITE_ROW_MATCH_H
#define PUBLISHER_SQLITE_ROW_MATCH_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace tarn::publisher {

/** What is kept in memory of a row. */
struct RowPrint {
	std::int64_t id = 0;
	std::uint64_t content = 0; // a hash of all columns but the row id
	std::uint64_t key = 0;     // a hash of columns that no two rows have in common; 0 when there are none
};

/** Rows in the order of their ids. */
using RowPrints = std::vector<RowPrint>;

constexpr std::size_t kNoRow = static_cast<std::size_t>(-1);

/** Bytes of memory that matching takes for each row of one table. */
constexpr std::size_t kMatchBytesPerRow = 100;

/** The rows of two tables, named by their places, that are one row each. */
class RowMatch {
public:
	/** How much of two rows is the same, by their places; 0 when they are better taken for two rows. */
	using Likeness = std::function<std::size_t(std::size_t before, std::size_t after)>;

	/**
	 * Matches rows with the same content, then neighbours of these, then rows with the same key, and at last what lies
	 * between two matched rows in both tables, by likeness.
	 */
	RowMatch(const RowPrints& before, const RowPrints& after, const Likeness& likeness);

	/** The row after that a row before becomes, or kNoRow. */
	std::size_t After(std::size_t before) const { return after_of_[before]; }
	std::size_t Before(std::size_t after) const { return before_of_[after]; }
	/** Whether a matched row lies among the others in the same order as before. */
	bool InOrder(std::size_t before) const { return in_order_[before]; }

private:
	void Match(std::size_t before, std::size_t after);
	/** Whether both are there, not matched, and have the same content. */
	bool CanExtend(std::size_t before, std::size_t after) const;
	void MatchEqual(std::uint64_t RowPrint::*hash);
	void Extend();
	void FindOrder();
	void MatchBetween(const Likeness& likeness);
	void MatchGap(
	    const std::vector<std::size_t>& left, const std::vector<std::size_t>& right, const Likeness& likeness);

	const RowPrints& before_;
	const RowPrints& after_;
	std::vector<std::size_t> after_of_;
	std::vector<std::size_t> before_of_;
	std::vector<bool> in_order_;
};

} // namespace tarn::publisher

#endif
