#include "host/program.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace tarn::ctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::vector<Command>& Commands() {
	static const std::vector<Command> kCommands = {
	    {"run", "", nullptr, {}, false, false, nullptr, nullptr, Tail::kCommand},
	    {"take", "", nullptr, {}, false, false, nullptr, nullptr, Tail::kNumber},
	    {"plain", "", nullptr, {}, false, false, nullptr, nullptr, Tail::kNone}};
	return kCommands;
}

TEST(ArgumentsTest, KeepsTheWordsOfACommandAsTheyAre) {
	const Arguments arguments =
	    SplitArguments({"--verbose", "run", "geo", "--", "sh", "-c", "[ 1 ]", "--", "--json", ""}, Commands());
	EXPECT_THAT(arguments.own, ElementsAre("--verbose", "run", "geo"));
	EXPECT_THAT(arguments.command, ElementsAre("sh", "-c", "[ 1 ]", "--", "--json", ""));
}

TEST(ArgumentsTest, FindsNoCommandWithoutItsMark) {
	const Arguments arguments = SplitArguments({"run", "geo", "ls"}, Commands());
	EXPECT_THAT(arguments.own, ElementsAre("run", "geo", "ls"));
	EXPECT_THAT(arguments.command, IsEmpty());
}

TEST(ArgumentsTest, TellsANumberFromAnOption) {
	EXPECT_THAT(SplitArguments({"take", "geo", "-12", "--json"}, Commands()).own,
	    ElementsAre("take", "geo", "--json", "--", "-12"));
	EXPECT_THAT(SplitArguments({"take", "geo", "--", "-1"}, Commands()).own, ElementsAre("take", "geo", "--", "-1"));
	EXPECT_THAT(SplitArguments({"take", "-x", "-", "-1x"}, Commands()).own, ElementsAre("take", "-x", "-", "-1x"));
}

TEST(ArgumentsTest, LeavesOtherCommandsAlone) {
	EXPECT_THAT(SplitArguments({"plain", "-1", "--", "x"}, Commands()).own, ElementsAre("plain", "-1", "--", "x"));
	EXPECT_THAT(SplitArguments({"unknown", "-1"}, Commands()).own, ElementsAre("unknown", "-1"));
	EXPECT_THAT(SplitArguments({}, Commands()).own, IsEmpty());
}

} // namespace
} // namespace tarn::ctl
