// Code tables that a patch brings along.
#include "vcdiff_builder.h"

#include <gmock/gmock.h>

namespace tarn::decoder::test {

namespace {

using ::testing::HasSubstr;

constexpr char kSource[] = "abcdefghijklmnop";
constexpr std::uint64_t kSourceSize = 16;

Instruction Noop() {
	return {};
}

Instruction Of(InstructionType type, int size, int mode = 0) {
	return {type, static_cast<Byte>(size), static_cast<Byte>(mode)};
}

/** All entries do nothing, but for these, which stand at the table's beginning. */
CodeTable TableOf(std::initializer_list<CodeTableEntry> entries) {
	CodeTable table = {};
	std::copy(entries.begin(), entries.end(), table.entries.begin());
	return table;
}

std::string SourceWindow(std::initializer_list<int> codes, const std::string& data, const std::string& addresses,
    std::uint64_t target_size) {
	return WindowBuilder().Segment(kSourceWindow, kSourceSize, 0).Code(codes, data, addresses).Build(target_size);
}

TEST(VcdiffTable, OfTheStandardIsThere) {
	const CodeTable table = DefaultCodeTable();
	const std::vector<Byte> string = CodeTableString(table);
	ASSERT_EQ(string.size(), 1536U);
	// First and last of each kind: RUN, ADD 0, ADD 17, COPY 0 by mode 0, COPY 18 by mode 8, then the pairs.
	const struct {
		std::size_t code;
		Instruction first;
		Instruction second;
	} rows[] = {
	    {0, Of(InstructionType::kRun, 0), Noop()},
	    {1, Of(InstructionType::kAdd, 0), Noop()},
	    {18, Of(InstructionType::kAdd, 17), Noop()},
	    {19, Of(InstructionType::kCopy, 0, 0), Noop()},
	    {20, Of(InstructionType::kCopy, 4, 0), Noop()},
	    {162, Of(InstructionType::kCopy, 18, 8), Noop()},
	    {163, Of(InstructionType::kAdd, 1), Of(InstructionType::kCopy, 4, 0)},
	    {174, Of(InstructionType::kAdd, 4), Of(InstructionType::kCopy, 6, 0)},
	    {234, Of(InstructionType::kAdd, 4), Of(InstructionType::kCopy, 6, 5)},
	    {235, Of(InstructionType::kAdd, 1), Of(InstructionType::kCopy, 4, 6)},
	    {246, Of(InstructionType::kAdd, 4), Of(InstructionType::kCopy, 4, 8)},
	    {247, Of(InstructionType::kCopy, 4, 0), Of(InstructionType::kAdd, 1)},
	    {255, Of(InstructionType::kCopy, 4, 8), Of(InstructionType::kAdd, 1)},
	};
	for (const auto& row : rows) {
		const auto at = [&](std::size_t part) { return string[part * CodeTable::kEntries + row.code]; };
		EXPECT_EQ(at(0), static_cast<Byte>(row.first.type)) << row.code;
		EXPECT_EQ(at(1), static_cast<Byte>(row.second.type)) << row.code;
		EXPECT_EQ(at(2), row.first.size) << row.code;
		EXPECT_EQ(at(3), row.second.size) << row.code;
		EXPECT_EQ(at(4), row.first.mode) << row.code;
		EXPECT_EQ(at(5), row.second.mode) << row.code;
	}
}

TEST(VcdiffTable, OfAPatchReplacesTheDefaultTable) {
	const CodeTable table = TableOf({{Of(InstructionType::kAdd, 3), Of(InstructionType::kAdd, 2)},
	    {Of(InstructionType::kCopy, 5, 1), Of(InstructionType::kRun, 200)}, {Noop(), Of(InstructionType::kAdd, 1)}});
	const std::string patch =
	    PatchWithTable({4, 3}, TablePatch(table), SourceWindow({0, 1, 3, 2}, "12345R6", Integer(20), 211));
	EXPECT_EQ(Decoded(kSource, patch), "12345"
	                                   "bcdef" +
	                                       std::string(200, 'R') + "6");
}

TEST(VcdiffTable, IsItselfAPatchAgainstTheDefaultTable) {
	// The default table but for its first entry, which becomes ADD 2: one byte of types and one of sizes.
	constexpr std::uint64_t kFirstSizes = 512;
	const std::string table_patch =
	    Patch(WindowBuilder()
	              .Segment(kSourceWindow, CodeTable::kStringSize, 0)
	              .Add(Raw({1}))
	              .Copy(kFirstSizes - 1, 0, Integer(1))
	              .Add(Raw({2}))
	              .Copy(CodeTable::kStringSize - kFirstSizes - 1, 0, Integer(kFirstSizes + 1))
	              .Build(CodeTable::kStringSize));
	const std::string patch = PatchWithTable({4, 3}, table_patch, SourceWindow({0, 20}, "12", Integer(3), 6));
	EXPECT_EQ(Decoded(kSource, patch), "12defg");
}

TEST(VcdiffTable, ComesBeforeTheApplicationHeader) {
	std::string patch = PatchWithTable({4, 3}, TablePatch(DefaultCodeTable()), "");
	constexpr std::size_t kIndicatorAt = 4;
	patch[kIndicatorAt] = 6;
	const std::string promise = PromiseOf(kSource, "abcd");
	patch += Integer(promise.size()) + promise + SourceWindow({20}, "", Integer(0), 4);
	EXPECT_EQ(Decoded(kSource, patch), "abcd");
}

TEST(VcdiffTable, ChoosesTheSizesOfTheCaches) {
	// One near slot makes mode 3 the first unit of the same cache, here one of two.
	const CodeTable table =
	    TableOf({{Of(InstructionType::kCopy, 1, 0), Noop()}, {Of(InstructionType::kCopy, 1, 2), Noop()},
	        {Of(InstructionType::kCopy, 1, 3), Noop()}, {Of(InstructionType::kCopy, 1, 4), Noop()}});
	const std::string window = SourceWindow({0, 1, 1, 2, 3}, "", Integer(5) + Integer(1) + Integer(2) + Raw({8, 9}), 5);
	EXPECT_EQ(Decoded(kSource, PatchWithTable({1, 2}, TablePatch(table), window)), "fgiia");
}

TEST(VcdiffTable, MayDoWithoutCaches) {
	const CodeTable table = TableOf({{Of(InstructionType::kCopy, 2, 0), Of(InstructionType::kCopy, 2, 1)}});
	const std::string window = SourceWindow({0}, "", Integer(5) + Integer(16), 4);
	EXPECT_EQ(Decoded(kSource, PatchWithTable({0, 0}, TablePatch(table), window)), "fgcd");
}

TEST(VcdiffTable, MayHaveCachesOfAllSizesThatModesHaveNumbersFor) {
	for (const CacheSizes caches : {CacheSizes{254, 0}, CacheSizes{0, 254}, CacheSizes{100, 154}}) {
		const CodeTable table = TableOf({{Of(InstructionType::kCopy, 1, 0), Of(InstructionType::kCopy, 1, 255)}});
		const std::string window = SourceWindow({0}, "", Integer(5) + Integer(2), 2);
		// The last near slot, or the last unit of the same cache; both are empty.
		const std::string expected = caches.same == 0 ? "fc" : "fa";
		EXPECT_EQ(Decoded(kSource, PatchWithTable(caches, TablePatch(table), window)), expected) << caches.near;
	}
	EXPECT_EQ(ErrorOf(kSource, PatchWithTable({254, 1}, TablePatch(DefaultCodeTable()), "")),
	    "patch, byte 9: caches of sizes 254 and 1 make more than 256 address modes.");
}

TEST(VcdiffTable, WithImpossibleInstructionsIsRefused) {
	CodeTable table = DefaultCodeTable();
	table.entries[7].second.type = static_cast<InstructionType>(4);
	EXPECT_EQ(ErrorOf(kSource, PatchWithTable({4, 3}, TablePatch(table), "")),
	    "patch: its code table has an instruction of type 4.");
	EXPECT_EQ(ErrorOf(kSource, PatchWithTable({4, 2}, TablePatch(DefaultCodeTable()), "")),
	    "patch: its code table has address mode 8 where the caches make 8 modes.");
}

TEST(VcdiffTable, OfAnotherSizeIsRefused) {
	EXPECT_EQ(
	    ErrorOf(kSource, PatchWithTable({4, 3}, Patch(""), "")), "patch: its code table has 0 bytes instead of 1536.");
	const std::string large = Patch(WindowBuilder().Run(1537, 'x').Build(1537));
	EXPECT_THAT(
	    ErrorOf(kSource, PatchWithTable({4, 3}, large, "")), HasSubstr("would make the output larger than 1536 bytes"));
}

TEST(VcdiffTable, WithATableOfItsOwnIsRefused) {
	const std::string nested = PatchWithTable({4, 3}, TablePatch(DefaultCodeTable()), "");
	EXPECT_EQ(ErrorOf(kSource, PatchWithTable({4, 3}, nested, "")),
	    "patch, code table at 9: a code table must not have a code table of its own.");
}

TEST(VcdiffTable, ThatIsNoPatchIsToldByItsPlace) {
	EXPECT_EQ(ErrorOf(kSource, PatchWithTable({4, 3}, "no patch", "")),
	    "patch, code table at 8, byte 1: this is not a VCDIFF patch.");
	EXPECT_EQ(
	    ErrorOf(kSource, PatchWithTable({4, 3}, "", "")), "patch, code table at 8, byte 0: the patch ends too early.");
}

} // namespace

} // namespace tarn::decoder::test
