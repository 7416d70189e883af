// Patches made by hand: every instruction, address mode and kind of window.
#include "vcdiff_builder.h"

#include <gtest/gtest.h>

namespace tarn::decoder::test {

namespace {

constexpr char kSource[] = "abcdefghijklmnop";
constexpr std::uint64_t kSourceSize = 16;
constexpr char kExampleTarget[] = "abcdwxyzefghefghefghefghzzzz";

/** The standard's own example, in single instructions. */
std::string ExampleWindow() {
	return WindowBuilder()
	    .Segment(kSourceWindow, kSourceSize, 0)
	    .Copy(4, 0, Integer(0))
	    .Add("wxyz")
	    .Copy(4, 0, Integer(4))
	    .Copy(12, 0, Integer(24))
	    .Run(4, 'z')
	    .Build(28);
}

TEST(VcdiffVector, DecodesTheStandardsExample) {
	EXPECT_EQ(Decoded(kSource, Patch(ExampleWindow())), kExampleTarget);
}

TEST(VcdiffVector, DecodesTheExampleFromCodesThatHoldTheirSizes) {
	const std::string window = WindowBuilder()
	                               .Segment(kSourceWindow, kSourceSize, 0)
	                               .Code({20, 5, 20, 28, 0, 4}, "wxyzz", Raw({0, 4, 24}))
	                               .Build(28);
	EXPECT_EQ(Decoded(kSource, Patch(window)), kExampleTarget);
}

TEST(VcdiffVector, DecodesPairsOfTheDefaultTable) {
	// 163 is ADD 1, COPY 4 by mode 0; 234 ADD 4, COPY 6 by mode 5; 246 ADD 4, COPY 4 by mode 8; 255 COPY 4 by mode 8,
	// ADD 1. Mode 5 is the fourth near slot, still empty; mode 8 the third unit of the same cache, also empty.
	const std::string window = WindowBuilder()
	                               .Segment(kSourceWindow, kSourceSize, 0)
	                               .Code({163, 234, 246, 255},
	                                   "1"
	                                   "2345"
	                                   "6789"
	                                   "0",
	                                   Raw({2, 3, 7, 9}))
	                               .Build(28);
	EXPECT_EQ(Decoded(kSource, Patch(window)), "1cdef2345defghi6789abcdabcd0");
}

TEST(VcdiffVector, DecodesAddressesOfAllNineModes) {
	// A source that is longer than a unit of the same cache, whose letters tell their place.
	std::string source;
	for (int place = 0; place < 1000; ++place) {
		source += static_cast<char>('!' + place % 89);
	}
	WindowBuilder window;
	window.Segment(kSourceWindow, source.size(), 0);
	window.Copy(1, 0, Integer(300)); // here is 1000; near slot 0 becomes 300, same slot 300 too
	window.Copy(1, 1, Integer(401)); // here is 1001: 600; near 1
	window.Copy(1, 2, Integer(10));  // near 0 is 300: 310; near 2
	window.Copy(1, 3, Integer(20));  // near 1 is 600: 620; near 3
	window.Copy(1, 4, Integer(30));  // near 2 is 310: 340; near 0
	window.Copy(1, 5, Integer(40));  // near 3 is 620: 660; near 1
	window.Copy(1, 0, Integer(77));  // near 2
	window.Copy(1, 6, Raw({77}));    // same 77
	window.Copy(1, 7, Raw({300 - 256}));
	window.Copy(1, 8, Raw({620 - 512}));
	window.Copy(1, 8, Raw({660 - 512}));
	const std::size_t places[] = {300, 600, 310, 620, 340, 660, 77, 77, 300, 620, 660};
	std::string expected;
	for (const std::size_t place : places) {
		expected += source[place];
	}
	EXPECT_EQ(Decoded(source, Patch(window.Build(expected.size()))), expected);
}

TEST(VcdiffVector, TakesAnAddressModuloTheSizeOfTheSameCache) {
	std::string source(2000, '.');
	source[768 + 5] = 'x';
	const std::string window = WindowBuilder()
	                               .Segment(kSourceWindow, source.size(), 0)
	                               .Copy(1, 0, Integer(768 + 5))
	                               .Copy(1, 6, Raw({5}))
	                               .Build(2);
	EXPECT_EQ(Decoded(source, Patch(window)), "xx");
}

TEST(VcdiffVector, ForgetsAddressesAtEachWindow) {
	const std::string first = WindowBuilder().Segment(kSourceWindow, kSourceSize, 0).Copy(1, 0, Integer(5)).Build(1);
	const std::string near = WindowBuilder().Segment(kSourceWindow, kSourceSize, 0).Copy(1, 2, Integer(1)).Build(1);
	const std::string same = WindowBuilder().Segment(kSourceWindow, kSourceSize, 0).Copy(1, 6, Raw({5})).Build(1);
	EXPECT_EQ(Decoded(kSource, Patch(first + near + same)), "fba");
}

TEST(VcdiffVector, StartsTheNearCacheAtItsFirstSlotInEachWindow) {
	const std::string first = WindowBuilder().Segment(kSourceWindow, kSourceSize, 0).Copy(1, 0, Integer(5)).Build(1);
	const std::string second =
	    WindowBuilder().Segment(kSourceWindow, kSourceSize, 0).Copy(1, 0, Integer(7)).Copy(1, 2, Integer(1)).Build(2);
	EXPECT_EQ(Decoded(kSource, Patch(first + second)), "fhi");
}

TEST(VcdiffVector, CopiesFromAPartOfTheSource) {
	const std::string window = WindowBuilder().Segment(kSourceWindow, 6, 4).Copy(6, 0, Integer(0)).Build(6);
	EXPECT_EQ(Decoded(kSource, Patch(window)), "efghij");
}

TEST(VcdiffVector, CopiesAcrossTheBorderOfSegmentAndTarget) {
	const std::string window = WindowBuilder().Segment(kSourceWindow, 6, 4).Add("12").Copy(5, 0, Integer(4)).Build(7);
	EXPECT_EQ(Decoded(kSource, Patch(window)), "12ij12i");
}

TEST(VcdiffVector, CopiesAcrossTheBorderIntoWhatTheSameCopyMakes) {
	const std::string window = WindowBuilder().Segment(kSourceWindow, 6, 4).Copy(9, 0, Integer(4)).Build(9);
	EXPECT_EQ(Decoded(kSource, Patch(window)), "ijijijiji");
}

TEST(VcdiffVector, CopiesFromTheEarlierTarget) {
	const std::string first = WindowBuilder().Add("abcdefgh").Build(8);
	const std::string second =
	    WindowBuilder().Segment(kTargetWindow, 4, 3).Copy(6, 0, Integer(1)).Copy(2, 1, Integer(7)).Build(8);
	// The segment is "defg". The first copy runs over its end into what it makes itself, the second from its last
	// letter into the window.
	EXPECT_EQ(Decoded("", Patch(first + second)), "abcdefghefgefgge");
}

TEST(VcdiffVector, RepeatsAPatternOfEveryPeriod) {
	for (std::size_t period = 1; period < 20; ++period) {
		const std::string pattern = std::string("0123456789ABCDEFGHIJ").substr(0, period);
		constexpr std::uint64_t kLength = 1000;
		std::string expected;
		while (expected.size() < kLength + period) {
			expected += pattern;
		}
		expected.resize(kLength + period);
		const std::string window =
		    WindowBuilder().Add(pattern).Copy(kLength, 1, Integer(period)).Build(expected.size());
		EXPECT_EQ(Decoded("", Patch(window)), expected) << period;
		// A block that the pattern does not divide.
		EXPECT_EQ(Decoded("", Patch(window), {std::nullopt, {64, 16, 37}}), expected) << period;
	}
}

TEST(VcdiffVector, DecodesARunLongerThanAllBuffers) {
	const std::string window = WindowBuilder().Run(5'000'000, 'r').Build(5'000'000);
	EXPECT_EQ(Decoded("", Patch(window)), std::string(5'000'000, 'r'));
}

TEST(VcdiffVector, DecodesAnEmptyPatchWindowAndInstruction) {
	EXPECT_EQ(Decoded("", Patch("")), "");
	EXPECT_EQ(Decoded(kSource, Patch("")), "");
	EXPECT_EQ(Decoded("", Patch(WindowBuilder().Build(0))), "");
	EXPECT_EQ(Decoded("", Patch(WindowBuilder().Add("").Build(0))), "");
	const std::string window = WindowBuilder().Add("a").Build(1);
	EXPECT_EQ(Decoded("", Patch(window + WindowBuilder().Build(0) + window)), "aa");
	EXPECT_EQ(Decoded("", Patch(WindowBuilder().Segment(kSourceWindow, 0, 0).Add("a").Build(1))), "a");
}

TEST(VcdiffVector, ReadsIntegersWithLeadingZeros) {
	const std::string window = WindowBuilder().Code({1, 0x80, 0x80, 0x03}, "abc", "").Build(3);
	EXPECT_EQ(Decoded("", Patch(window)), "abc");
}

TEST(VcdiffVector, AcceptsTheRightChecksumOfEachWindow) {
	// Adler-32 of "Wikipedia" is a well-known example; 1 that of nothing.
	const std::string window = WindowBuilder().Add("Wikipedia").Checksum(0x11e60398).Build(9);
	EXPECT_EQ(Decoded("", Patch(window + WindowBuilder().Checksum(1).Build(0) + window)), "WikipediaWikipedia");
	EXPECT_EQ(Decoded("", Patch(window + window), {std::nullopt, {8, 8, 4}}), "WikipediaWikipedia");
}

TEST(VcdiffVector, IgnoresTheApplicationHeadersOfOthers) {
	for (const char* header : {"", "old.bin//new.bin/", "TARNVCD", "tarnvcd1 x"}) {
		EXPECT_EQ(Decoded(kSource, PatchWithApplicationHeader(header, ExampleWindow())), kExampleTarget) << header;
	}
	EXPECT_EQ(Decoded(kSource, PatchWithApplicationHeader(std::string(100'000, 'h'), ExampleWindow())), kExampleTarget);
}

TEST(VcdiffVector, HoldsTheResultAgainstOurApplicationHeader) {
	const std::string header = PromiseOf(kSource, kExampleTarget);
	EXPECT_EQ(Decoded(kSource, PatchWithApplicationHeader(header, ExampleWindow())), kExampleTarget);
	EXPECT_EQ(Decoded("", PatchWithApplicationHeader(PromiseOf("", ""), "")), "");
}

TEST(VcdiffVector, LeavesTheChecksumsUnreadWhereTheHashSaysMore) {
	const std::string window = WindowBuilder().Add("abc").Checksum(0xdeadbeef).Build(3);
	EXPECT_EQ(Decoded("", PatchWithApplicationHeader(PromiseOf("", "abc"), window)), "abc");
}

} // namespace

} // namespace tarn::decoder::test
