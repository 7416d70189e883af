// Every way in which a patch can be wrong, and what is said about it.
#include "decoder/patch_header.h"
#include "vcdiff_builder.h"

#include <gmock/gmock.h>

#include <limits>

namespace tarn::decoder::test {

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char kSource[] = "abcdefghijklmnop";
constexpr std::uint64_t kSourceSize = 16;
constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();

WindowBuilder FromSource() {
	return WindowBuilder().Segment(kSourceWindow, kSourceSize, 0);
}

std::string ErrorOfWindow(const WindowBuilder& window, std::uint64_t target_size) {
	return ErrorOf(kSource, Patch(window.Build(target_size)));
}

TEST(VcdiffError, NamesWhatIsNoPatch) {
	EXPECT_EQ(ErrorOf("", ""), "patch, byte 0: the patch ends too early.");
	EXPECT_EQ(ErrorOf("", "BSDIFF40"), "patch, byte 1: this is not a VCDIFF patch.");
	EXPECT_EQ(
	    ErrorOf("", Raw({0xd6, 0xc3, 0xc4, 'S', 0})), "patch, byte 4: version 83 of the VCDIFF format is not known.");
	EXPECT_EQ(ErrorOf("", Magic(8)), "patch, byte 5: the header has unknown bits (8).");
}

TEST(VcdiffError, NamesTheSecondaryCompression) {
	EXPECT_EQ(ErrorOf("", Magic(1) + Raw({1})), "patch, byte 6: secondary compression (DJW) is not supported.");
	EXPECT_EQ(ErrorOf("", Magic(1) + Raw({2})), "patch, byte 6: secondary compression (LZMA) is not supported.");
	EXPECT_EQ(ErrorOf("", Magic(1) + Raw({16})), "patch, byte 6: secondary compression (FGK) is not supported.");
	EXPECT_EQ(ErrorOf("", Magic(1) + Raw({77})), "patch, byte 6: secondary compression (number 77) is not supported.");
	WindowBuilder window;
	window.delta_indicator = 2;
	EXPECT_EQ(ErrorOfWindow(window.Add("a"), 1),
	    "patch, byte 9: the window's sections are compressed (2), but the header names no compression.");
}

TEST(VcdiffError, NamesAPartBeyondThePatchsEnd) {
	EXPECT_EQ(ErrorOf("", Magic(4) + Raw({100, 'x'})),
	    "patch, byte 6: an application header of 100 bytes goes beyond the patch's end.");
	EXPECT_EQ(ErrorOf("", Magic(2) + Raw({100, 4, 3})),
	    "patch, byte 6: a code table of 100 bytes goes beyond the patch's end.");
	EXPECT_EQ(ErrorOf("", Magic(4) + Integer(kMost)),
	    "patch, byte 15: an application header of 18446744073709551615 bytes goes beyond the patch's end.");
	EXPECT_EQ(ErrorOf("", Magic(2) + Raw({1, 4})), "patch, byte 7: the code table ends too early.");
}

TEST(VcdiffError, NamesAMalformedApplicationHeader) {
	const std::string good = PromiseOf(kSource, "");
	ASSERT_EQ(ErrorOf(kSource, PatchWithApplicationHeader(good, "")), "no error");
	const std::string hash = good.substr(good.size() - 32);
	const std::string headers[] = {"TARNVCD1", "TARNVCD1 ", "TARNVCD1x16 0 " + hash, "TARNVCD1 16 0", "TARNVCD1 16 0 ",
	    "TARNVCD1 16  0 " + hash, " TARNVCD1" + good, "TARNVCD1 016 0 " + hash, "TARNVCD1 -16 0 " + hash,
	    "TARNVCD1 +16 0 " + hash, "TARNVCD1 0x10 0 " + hash, "TARNVCD1 18446744073709551616 0 " + hash,
	    "TARNVCD1 16 0 " + hash.substr(1), "TARNVCD1 16 0 0" + hash, "TARNVCD1 16 0 " + hash + "\n",
	    "TARNVCD1 16 0 " + hash.substr(1) + "G", "TARNVCD1 16 0 " + hash.substr(1) + "A", good + std::string(1, '\0'),
	    good + std::string(1000, ' ')};
	for (const std::string& header : headers) {
		const bool ours = header.rfind("TARNVCD1", 0) == 0;
		EXPECT_THAT(ErrorOf(kSource, PatchWithApplicationHeader(header, "")),
		    HasSubstr(ours ? ": the application header is malformed." : "no error"))
		    << header;
	}
}

TEST(VcdiffError, NamesAWrongSourceBeforeAnythingElse) {
	const std::string patch = PatchWithApplicationHeader(PromiseOf("other", "abc"), "nonsense");
	EXPECT_EQ(ErrorOf(kSource, patch), "source has 16 bytes, but patch was made for a source of 5.");
}

TEST(VcdiffError, NamesAResultThatIsNotWhatOurHeaderPromises) {
	const std::string window = FromSource().Copy(3, 0, Integer(0)).Build(3);
	const auto error = [&](const std::string& promised, const std::string& windows) {
		return ErrorOf(kSource, PatchWithApplicationHeader(PromiseOf(kSource, promised), windows));
	};
	EXPECT_EQ(error("abc", window), "no error");
	EXPECT_EQ(error("abd", window), "patch: the result has another hash than promised; is source the right source?");
	EXPECT_EQ(error("abcabcabc", window + window), "patch makes 6 bytes, but its application header promises 9.");
	EXPECT_THAT(error("abcab", window + window),
	    HasSubstr(": the window would make the output larger than 5 bytes, which the application header promises."));
}

TEST(VcdiffError, NamesAWrongChecksum) {
	const std::string right = WindowBuilder().Add("Wikipedia").Checksum(0x11e60398).Build(9);
	const std::string wrong = WindowBuilder().Add("Wikipedia").Checksum(0x11e60399).Build(9);
	EXPECT_EQ(
	    ErrorOf("", Patch(right + wrong)), "patch, window at byte " + std::to_string(5 + right.size()) +
	                                           ": the checksum of the result is wrong; is source the right source?");
}

TEST(VcdiffError, NamesUnknownOrContraryBitsOfAWindow) {
	WindowBuilder unknown;
	unknown.extra_indicator = 8;
	EXPECT_EQ(ErrorOfWindow(unknown, 0), "patch, byte 6: the window has unknown bits (8).");
	WindowBuilder both;
	both.extra_indicator = 3;
	EXPECT_EQ(ErrorOfWindow(both, 0), "patch, byte 6: the window wants to copy from both the source and the target.");
}

TEST(VcdiffError, NamesASegmentThatIsNotThere) {
	EXPECT_EQ(ErrorOfWindow(WindowBuilder().Segment(kSourceWindow, 17, 0), 0),
	    "patch, byte 8: the window wants 17 bytes at 0 of the source, which has only 16.");
	EXPECT_EQ(ErrorOfWindow(WindowBuilder().Segment(kSourceWindow, 10, 7), 0),
	    "patch, byte 8: the window wants 10 bytes at 7 of the source, which has only 16.");
	EXPECT_THAT(ErrorOfWindow(WindowBuilder().Segment(kSourceWindow, kMost, 16), 0), HasSubstr("which has only 16."));
	EXPECT_THAT(ErrorOfWindow(WindowBuilder().Segment(kSourceWindow, 0, 17), 0), HasSubstr("which has only 16."));
	const std::string first = WindowBuilder().Add("ab").Build(2);
	EXPECT_THAT(ErrorOf(kSource, Patch(first + WindowBuilder().Segment(kTargetWindow, 2, 1).Build(0))),
	    HasSubstr("the window wants 2 bytes at 1 of the target, which has only 2."));
}

TEST(VcdiffError, NamesIntegersThatAreTooLarge) {
	const auto error = [](std::initializer_list<int> size) {
		return ErrorOf("", Patch(WindowBuilder().Code({1}, "", "").Code(size, "", "").Build(1)));
	};
	const std::string place = "patch, byte 23: ";
	EXPECT_EQ(error({0x82, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x00}),
	    place + "an integer does not fit into 64 bits.");
	EXPECT_EQ(error({0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80}),
	    place + "an integer has more than 10 digits.");
	EXPECT_EQ(error({0x81, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f}),
	    place + "an instruction makes 18446744073709551615 bytes where the window has room for 1.");
}

TEST(VcdiffError, NamesLengthsThatDontFitTogether) {
	WindowBuilder beyond = FromSource().Add("abc");
	beyond.window_length = 100;
	EXPECT_EQ(ErrorOfWindow(beyond, 3), "patch, byte 9: a window of 100 bytes goes beyond the patch's end.");
	WindowBuilder data = FromSource().Add("abc");
	data.data_length = kMost;
	EXPECT_THAT(ErrorOfWindow(data, 3), HasSubstr(": the window's sections are longer than the window."));
	WindowBuilder instructions = FromSource().Add("abc");
	instructions.instruction_length = 3;
	EXPECT_THAT(ErrorOfWindow(instructions, 3), HasSubstr(": the window's sections are longer than the window."));
	WindowBuilder addresses = FromSource().Add("abc");
	addresses.address_length = 1;
	EXPECT_THAT(ErrorOfWindow(addresses, 3), HasSubstr(": the window's sections are longer than the window."));
	WindowBuilder left = FromSource().Copy(3, 0, Integer(0));
	left.address_length = 0;
	EXPECT_THAT(ErrorOfWindow(left, 3), HasSubstr(": the window has 1 bytes more than its sections."));
	WindowBuilder head = FromSource().Add("abc");
	head.window_length = 2;
	EXPECT_THAT(ErrorOfWindow(head, 3), HasSubstr(": the window ends too early."));
}

TEST(VcdiffError, NamesAddressesThatAreNotThere) {
	EXPECT_THAT(ErrorOfWindow(FromSource().Copy(1, 0, Integer(16)), 1),
	    HasSubstr(": a COPY from 16 while only 16 bytes are there to copy from."));
	EXPECT_THAT(
	    ErrorOfWindow(FromSource().Add("a").Copy(1, 0, Integer(17)), 2), HasSubstr(": a COPY from 17 while only 17 "));
	EXPECT_THAT(ErrorOfWindow(WindowBuilder().Copy(1, 0, Integer(0)), 1), HasSubstr(": a COPY from 0 while only 0 "));
	EXPECT_THAT(ErrorOfWindow(WindowBuilder().Copy(1, 6, Raw({0})), 1), HasSubstr(": a COPY from 0 while only 0 "));
	EXPECT_THAT(ErrorOfWindow(FromSource().Copy(1, 1, Integer(0)), 1), HasSubstr(": a COPY from 16 while only 16 "));
	EXPECT_THAT(ErrorOfWindow(FromSource().Copy(1, 1, Integer(17)), 1),
	    HasSubstr(": a COPY from 17 bytes back while there are only 16."));
	EXPECT_THAT(ErrorOfWindow(FromSource().Copy(1, 0, Integer(1)).Copy(1, 2, Integer(kMost)), 2),
	    HasSubstr(": a COPY's address does not fit into 64 bits."));
}

TEST(VcdiffError, NamesInstructionsThatDontFillTheirWindow) {
	EXPECT_THAT(ErrorOfWindow(WindowBuilder().Run(11, 'x'), 10),
	    HasSubstr(": an instruction makes 11 bytes where the window has room for 10."));
	EXPECT_THAT(ErrorOfWindow(WindowBuilder().Run(9, 'x'), 10),
	    HasSubstr(": the instructions end 1 bytes before their window is full."));
	EXPECT_THAT(
	    ErrorOfWindow(WindowBuilder(), 10), HasSubstr(": the instructions end 10 bytes before their window is full."));
	EXPECT_THAT(ErrorOfWindow(WindowBuilder().Add("a").Code({}, "bc", ""), 1),
	    HasSubstr(": the window's instructions leave 2 bytes of data over."));
	EXPECT_THAT(ErrorOfWindow(WindowBuilder().Add("a").Code({}, "", "bcd"), 1),
	    HasSubstr(": the window's instructions leave 3 bytes of addresses over."));
}

TEST(VcdiffError, NamesSectionsThatEndTooEarly) {
	EXPECT_THAT(ErrorOfWindow(WindowBuilder().Code({1, 5}, "abc", ""), 5),
	    HasSubstr(": an ADD of 5 bytes where the data section has only 3."));
	EXPECT_THAT(
	    ErrorOfWindow(WindowBuilder().Code({0, 5}, "", ""), 5), HasSubstr(": the data section ends too early."));
	EXPECT_THAT(
	    ErrorOfWindow(WindowBuilder().Code({1}, "a", ""), 1), HasSubstr(": the instruction section ends too early."));
	EXPECT_THAT(ErrorOfWindow(FromSource().Code({20}, "", ""), 4), HasSubstr(": the address section ends too early."));
}

TEST(VcdiffError, ComesAtEveryLengthOfATruncatedPatch) {
	const std::string window = FromSource().Add("abc").Copy(5, 1, Integer(9)).Run(20, 'r').Checksum(0).Build(28);
	std::string whole = PatchWithTable({4, 3}, TablePatch(DefaultCodeTable()), "");
	constexpr std::size_t kIndicatorAt = 4;
	whole[kIndicatorAt] = 6;
	const std::string promise = PromiseOf(kSource, "abcklmno" + std::string(20, 'r'));
	whole += Integer(promise.size()) + promise + window;
	ASSERT_EQ(ErrorOf(kSource, whole), "no error");
	for (std::size_t length = 0; length < whole.size(); ++length) {
		EXPECT_THAT(ErrorOf(kSource, whole.substr(0, length)), StartsWith("patch")) << length;
	}
	EXPECT_THAT(ErrorOf(kSource, whole + "x"), StartsWith("patch, byte "));
}

TEST(VcdiffLimit, OfTheOutputGrowsWithSourceAndPatch) {
	const std::uint64_t at_least = std::uint64_t{256} << 20U;
	const auto error = [](std::uint64_t size, std::size_t source_size) {
		return ErrorOf(std::string(source_size, 's'), Patch(WindowBuilder().Build(size)));
	};
	EXPECT_THAT(error(at_least, 0), HasSubstr("the instructions end"));
	EXPECT_THAT(error(at_least + 1, 0),
	    HasSubstr(": the window would make the output larger than 268435456 bytes, which is the limit."));
	constexpr std::size_t kLarge = 10'000'000;
	const std::uint64_t patch_size = Patch(WindowBuilder().Build(640'001'000)).size();
	EXPECT_THAT(error(64 * (kLarge + patch_size), kLarge), HasSubstr("the instructions end"));
	EXPECT_THAT(error(64 * (kLarge + patch_size) + 1, kLarge), HasSubstr("which is the limit."));
}

/** A source that is larger than memory, of which nothing is read. */
class HugeSource : public ReadableBytes {
public:
	explicit HugeSource(std::uint64_t size) : size_(size) {}

	const std::string& Name() const override { return name_; }
	std::uint64_t Size() const override { return size_; }
	void ReadAt(std::uint64_t /*offset*/, Byte* /*to*/, std::size_t /*length*/) const override {
		throw DecodeError("the source was read");
	}

private:
	std::string name_ = "source";
	std::uint64_t size_;
};

/** What is said of an empty patch whose header promises an output. */
std::string ErrorOfPromise(std::uint64_t source_size, std::uint64_t size) {
	const std::string promise = FormatApplicationHeader({source_size, size, std::string(32, '0')});
	const std::string patch = PatchWithApplicationHeader(promise, "");
	MemoryBytes target("output");
	try {
		DecodePatch(HugeSource(source_size), target, MemoryBytes("patch", {patch.begin(), patch.end()}));
		return "no error";
	} catch (const DecodeError& error) {
		return error.what();
	}
}

TEST(VcdiffLimit, OfTheOutputIsNeverMoreThan64GiB) {
	constexpr std::uint64_t kGiB = std::uint64_t{1} << 30U;
	for (const std::uint64_t source_size : {kGiB, 2 * kGiB, kMost}) {
		EXPECT_EQ(ErrorOfPromise(source_size, 64 * kGiB + 1),
		    "patch makes an output of 68719476737 bytes; the limit is 68719476736.");
		EXPECT_THAT(ErrorOfPromise(source_size, 64 * kGiB),
		    HasSubstr("makes 0 bytes, but its application header promises 68719476736"));
	}
}

TEST(VcdiffLimit, CountsAllWindows) {
	const std::string window = WindowBuilder().Run(600, 'x').Build(600);
	EXPECT_EQ(ErrorOf("", Patch(window + window), {1200, {}}), "no error");
	EXPECT_THAT(
	    ErrorOf("", Patch(window + window), {1199, {}}), HasSubstr("larger than 1199 bytes, which is the limit."));
	EXPECT_THAT(ErrorOf("", Patch(window + WindowBuilder().Build(kMost)), {}), HasSubstr("which is the limit."));
}

TEST(VcdiffLimit, IsReplacedInBothDirections) {
	const std::uint64_t more = (std::uint64_t{256} << 20U) + 1;
	EXPECT_THAT(ErrorOf("", Patch(WindowBuilder().Build(more)), {more, {}}), HasSubstr("the instructions end"));
	EXPECT_THAT(ErrorOf("", Patch(WindowBuilder().Run(1, 'x').Build(1)), {0, {}}), HasSubstr("larger than 0 bytes"));
}

TEST(VcdiffLimit, HoldsForWhatOurHeaderPromises) {
	const std::string promise = FormatApplicationHeader({0, (std::uint64_t{256} << 20U) + 1, std::string(32, '0')});
	EXPECT_EQ(ErrorOf("", PatchWithApplicationHeader(promise, "")),
	    "patch makes an output of 268435457 bytes; the limit is 268435456.");
}

} // namespace

} // namespace tarn::decoder::test
