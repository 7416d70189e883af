#include "base/nearest.h"

#include <gtest/gtest.h>

namespace tarn {
namespace {

const std::vector<std::string> kCommands = {"status", "update", "check", "volume show", "volume mounted"};

TEST(NearestTest, CountsLettersThatAreAddedTakenAwayChangedOrExchanged) {
	EXPECT_EQ(EditDistance("", ""), 0U);
	EXPECT_EQ(EditDistance("", "abc"), 3U);
	EXPECT_EQ(EditDistance("update", "update"), 0U);
	EXPECT_EQ(EditDistance("updat", "update"), 1U);
	EXPECT_EQ(EditDistance("uppdate", "update"), 1U);
	EXPECT_EQ(EditDistance("opdate", "update"), 1U);
	EXPECT_EQ(EditDistance("udpate", "update"), 1U);
	EXPECT_EQ(EditDistance("kitten", "sitting"), 3U);
}

TEST(NearestTest, FindsOnlyWhatIsNear) {
	EXPECT_EQ(NearestWord("updte", kCommands), "update");
	EXPECT_EQ(NearestWord("stauts", kCommands), "status");
	EXPECT_EQ(NearestWord("frobnicate", kCommands), std::nullopt);
	EXPECT_EQ(NearestWord("ab", {"cd"}), std::nullopt);
	EXPECT_EQ(NearestWord("", kCommands), std::nullopt);
	EXPECT_EQ(NearestWord(std::string(100000, 'x'), kCommands), std::nullopt);
	EXPECT_EQ(NearestWord("b", {"a", "c"}), "a");
}

TEST(NearestTest, SaysNothingOfCommandsThatExist) {
	EXPECT_EQ(DescribeUnknownCommand({"--json", "status", "nonsense"}, kCommands), "");
	EXPECT_EQ(DescribeUnknownCommand({"volume", "show", "nonsense"}, kCommands), "");
	EXPECT_EQ(DescribeUnknownCommand({}, kCommands), "");
	EXPECT_EQ(DescribeUnknownCommand({"volume"}, kCommands), "");
}

TEST(NearestTest, NamesTheCommandAndItsGroup) {
	EXPECT_EQ(DescribeUnknownCommand({"--json", "updte", "x"}, kCommands),
	    "There is no command \"updte\"; did you mean \"update\"?");
	EXPECT_EQ(DescribeUnknownCommand({"volume", "shwo"}, kCommands),
	    "There is no command \"volume shwo\"; did you mean \"volume show\"?");
	EXPECT_EQ(DescribeUnknownCommand({"volum"}, kCommands), "There is no command \"volum\"; did you mean \"volume\"?");
	EXPECT_EQ(DescribeUnknownCommand({"\033[1mx"}, kCommands), "There is no command \"?[1mx\"");
}

} // namespace
} // namespace tarn
