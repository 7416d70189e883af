#include "host/terminal/terminal.h"
#include "host/terminal/text.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace tarn::ctl {
namespace {

TEST(FormatDurationTest, UsesTheUnitThatReadsBest) {
	EXPECT_EQ(FormatDuration(0), "0 min");
	EXPECT_EQ(FormatDuration(3599), "59 min");
	EXPECT_EQ(FormatDuration(3600), "1 h");
	EXPECT_EQ(FormatDuration(2 * 86'400 - 1), "47 h");
	EXPECT_EQ(FormatDuration(2 * 86'400), "2 d");
	EXPECT_EQ(FormatDuration(-1), "in the future");
}

TEST(FormatTableTest, AlignsColumnsWithoutBlanksAtTheEnd) {
	EXPECT_EQ(FormatTable({{"A", "LONG", "B"}, {"wide", "x", ""}}), "A     LONG  B\nwide  x\n");
}

TEST(TerminalTest, ClearsTheRedrawnLineBeforeAnythingElse) {
	std::ostringstream out;
	std::ostringstream err;
	Terminal terminal(out, err, true);
	terminal.Draw("one");
	terminal.Draw("two");
	terminal.Say("result\n");
	terminal.Complain("Bad\nthing.");
	EXPECT_EQ(out.str(), "result\n");
	EXPECT_EQ(err.str(), "\r\x1b[Kone\r\x1b[Ktwo\r\x1b[Ktarndbudctl: Bad thing.\n");
}

TEST(TerminalTest, DrawsNothingWhereThereIsNoTerminal) {
	std::ostringstream out;
	std::ostringstream err;
	Terminal terminal(out, err, false);
	terminal.Draw("line");
	terminal.Draw("");
	EXPECT_EQ(out.str() + err.str(), "");
}

TEST(TerminalTest, NoticesThatOutputIsLost) {
	std::ostringstream out;
	std::ostringstream err;
	Terminal terminal(out, err, false);
	EXPECT_TRUE(terminal.Good());
	out.setstate(std::ios::badbit);
	EXPECT_FALSE(terminal.Good());
}

} // namespace
} // namespace tarn::ctl
