#include "host/terminal/terminal.h"
#include "host/terminal/text.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace tarn::ctl {
namespace {

TEST(PrintableTest, LetsNothingReachTheTerminalThatCouldSteerIt) {
	EXPECT_EQ(Printable("a\x1b[31mb\x07\x7f\xc2\x9b", 100), "a?[31mb????");
	EXPECT_EQ(Printable(std::string("a\0b", 3), 100), "a?b");
}

TEST(PrintableTest, KeepsOneLine) {
	EXPECT_EQ(Printable("a\r\nb\tc", 100), "a  b c");
}

TEST(PrintableTest, CutsOnlyWhatIsTooLong) {
	EXPECT_EQ(Printable("12345", 5), "12345");
	EXPECT_EQ(Printable("123456", 5), "12345...");
}

TEST(FormatBytesTest, UsesTheUnitThatKeepsThreeDigitsBeforeThePoint) {
	EXPECT_EQ(FormatBytes(0), "0 B");
	EXPECT_EQ(FormatBytes(999), "999 B");
	EXPECT_EQ(FormatBytes(1000), "1.0 kB");
	EXPECT_EQ(FormatBytes(999949), "999.9 kB");
	EXPECT_EQ(FormatBytes(999950), "1.0 MB");
	EXPECT_EQ(FormatBytes(12345678), "12.3 MB");
	EXPECT_EQ(FormatBytes(UINT64_MAX), "18446.7 PB");
}

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
