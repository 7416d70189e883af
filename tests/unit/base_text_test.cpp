#include "base/text.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>

namespace tarn {
namespace {

TEST(PlainAsciiTest, LetsNothingReachTheTerminalThatCouldSteerIt) {
	EXPECT_EQ(PlainAscii("a\x1b[31mb\x07\x7f\xc2\x9b", 100), "a?[31mb????");
	EXPECT_EQ(PlainAscii(std::string("a\0b", 3), 100), "a?b");
}

TEST(PlainAsciiTest, KeepsOneLine) {
	EXPECT_EQ(PlainAscii("a\r\nb\tc", 100), "a  b c");
}

TEST(PlainAsciiTest, CutsOnlyWhatIsTooLong) {
	EXPECT_EQ(PlainAscii("12345", 5), "12345");
	EXPECT_EQ(PlainAscii("123456", 5), "12345...");
}

TEST(PrintableTest, EscapesControlCharactersAndKeepsTheRest) {
	EXPECT_EQ(Printable("a\nb\x7f"), "a\\x0ab\\x7f");
	EXPECT_EQ(Printable("\xc3\xa9 ~"), "\xc3\xa9 ~");
}

TEST(HexTest, WritesTwoLowerCaseDigitsForEachByte) {
	const unsigned char bytes[] = {0x00, 0x0f, 0xa0, 0xff};
	EXPECT_EQ(Hex(bytes, sizeof bytes), "000fa0ff");
}

TEST(ErrnoTextTest, NamesTheAttemptAndTheReason) {
	EXPECT_EQ(ErrnoText("cannot open x", ENOENT), "cannot open x: No such file or directory");
}

TEST(HumanSizeTest, UsesTheUnitThatKeepsThreeDigitsBeforeThePoint) {
	EXPECT_EQ(HumanSize(0), "0 B");
	EXPECT_EQ(HumanSize(999), "999 B");
	EXPECT_EQ(HumanSize(1000), "1.0 kB");
	EXPECT_EQ(HumanSize(999'949), "999.9 kB");
	EXPECT_EQ(HumanSize(999'950), "1.0 MB");
	EXPECT_EQ(HumanSize(12'345'678), "12.3 MB");
	EXPECT_EQ(HumanSize(UINT64_MAX), "18446.7 PB");
}

TEST(AffixTest, ComparesWholeBeginningsAndEnds) {
	EXPECT_TRUE(StartsWith("abc", "ab"));
	EXPECT_TRUE(StartsWith("abc", ""));
	EXPECT_FALSE(StartsWith("ab", "abc"));
	EXPECT_TRUE(EndsWith("abc", "bc"));
	EXPECT_TRUE(EndsWith("abc", ""));
	EXPECT_FALSE(EndsWith("bc", "abc"));
}

} // namespace
} // namespace tarn
