// Which row of a table that was made again is which row of the table before.
#include "publisher/sqlite/row_match.h"

#include <gmock/gmock.h>

namespace tarn::test {

namespace {

using publisher::kNoRow;
using publisher::RowMatch;
using publisher::RowPrint;
using publisher::RowPrints;
using ::testing::ElementsAre;

struct Row {
	std::uint64_t content;
	std::uint64_t key;
};

RowPrints Prints(const std::vector<Row>& rows) {
	RowPrints prints;
	for (const Row& row : rows) {
		prints.push_back({static_cast<std::int64_t>(prints.size()) + 1, row.content, row.key});
	}
	return prints;
}

/** The place after of each row before; contents of one hundred are alike. */
std::vector<std::size_t> Matches(const std::vector<Row>& before, const std::vector<Row>& after) {
	const RowPrints left = Prints(before);
	const RowPrints right = Prints(after);
	const RowMatch match(left, right, [&](std::size_t i, std::size_t j) {
		return std::size_t{left[i].content / 100 == right[j].content / 100 ? 5U : 0U};
	});
	std::vector<std::size_t> matches;
	for (std::size_t i = 0; i < before.size(); ++i) {
		matches.push_back(match.After(i));
		if (matches.back() != kNoRow) {
			EXPECT_EQ(match.Before(matches.back()), i);
		}
	}
	return matches;
}

TEST(RowMatchTest, FindsRowsThatShifted) {
	EXPECT_THAT(Matches({{100, 0}, {200, 0}, {300, 0}}, {{900, 0}, {100, 0}, {300, 0}}), ElementsAre(1, kNoRow, 2));
	EXPECT_THAT(Matches({}, {{100, 0}}), ElementsAre());
	EXPECT_THAT(Matches({{100, 0}}, {}), ElementsAre(kNoRow));
}

TEST(RowMatchTest, TellsEqualRowsByTheirNeighbours) {
	EXPECT_THAT(Matches({{100, 0}, {700, 0}, {700, 0}, {200, 0}, {700, 0}}, {{100, 0}, {700, 0}, {200, 0}, {700, 0}}),
	    ElementsAre(0, 1, kNoRow, 2, 3));
}

TEST(RowMatchTest, FindsChangedRowsByKeyWhereverTheyAre) {
	EXPECT_THAT(Matches({{100, 1}, {200, 2}, {300, 3}}, {{350, 3}, {100, 1}, {200, 2}}), ElementsAre(1, 2, 0));
}

TEST(RowMatchTest, FindsChangedRowsBetweenOthersByWhatTheyHaveInCommon) {
	EXPECT_THAT(Matches({{100, 0}, {250, 0}, {350, 0}, {400, 0}}, {{100, 0}, {900, 0}, {355, 0}, {800, 0}, {400, 0}}),
	    ElementsAre(0, kNoRow, 2, 4));
}

TEST(RowMatchTest, KnowsWhichRowsKeptTheirOrder) {
	const RowPrints before = Prints({{100, 0}, {200, 0}, {300, 0}, {400, 0}});
	const RowPrints after = Prints({{400, 0}, {100, 0}, {200, 0}, {300, 0}});
	const RowMatch match(before, after, [](std::size_t /*before*/, std::size_t /*after*/) { return std::size_t{0}; });
	EXPECT_TRUE(match.InOrder(0) && match.InOrder(1) && match.InOrder(2));
	EXPECT_FALSE(match.InOrder(3));
	EXPECT_EQ(match.After(3), 0U);
}

} // namespace

} // namespace tarn::test
