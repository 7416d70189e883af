#include "dataupdate/space_shortage.h"
#include "dataupdate/strategy.h"
#include "fake_platform.h"
#include "fake_system.h"
#include "library_test.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <syslog.h>

#include <filesystem>
#include <optional>
#include <string>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

constexpr char kOfNothing[] =
    "38b060a751ac96384cd9327eb1b1e36a21fdb71114be07434c0cc7bf63f6e1da274edebfe76f65fbd51ad2f14898b95b";
constexpr unsigned long kGiga = 1000000000;

class Exposed : public BaseStrategy {
public:
	using BaseStrategy::_CheckDigest;
	using BaseStrategy::_ExtractTarballTo;
	using BaseStrategy::_IsSpaceEnough;
};

class StrategyTest : public testing::Test {
protected:
	test::TemporaryDirectory directory_;
	test::FakePlatform platform_;
	test::FakeSystem system_;
	Exposed strategy_;
};

TEST_F(StrategyTest, DoesNothingUnlessOverridden) {
	strategy_.PrepareUpdate();
	strategy_.ApplyUpdate();
	EXPECT_THAT(strategy_.GetModifiedFiles(), IsEmpty());
	EXPECT_EQ(strategy_.GetDeltaSize(), 0);
	EXPECT_THAT(platform_.events, IsEmpty());
}

TEST_F(StrategyTest, MakesModifyRecordsThatDoNothingYet) {
	const ModifyInfo info;
	EXPECT_EQ(info.operation, 0);
	EXPECT_EQ(info.source, "");
	EXPECT_EQ(ModifyInfo::kOverride, 1);
}

TEST_F(StrategyTest, ComparesDigestsByteForByte) {
	WriteFile(directory_ / "empty", "");
	EXPECT_TRUE(strategy_._CheckDigest(directory_ / "empty", kOfNothing));
	std::string upper = kOfNothing;
	upper[2] = 'B';
	EXPECT_FALSE(strategy_._CheckDigest(directory_ / "empty", upper));
	EXPECT_FALSE(strategy_._CheckDigest(directory_ / "empty", ""));
	WriteFile(directory_ / "full", "x");
	EXPECT_FALSE(strategy_._CheckDigest(directory_ / "full", kOfNothing));
}

TEST_F(StrategyTest, TakesAFileThatCannotBeOpenedForAnEmptyOne) {
	EXPECT_TRUE(strategy_._CheckDigest(directory_ / "missing", kOfNothing));
}

TEST_F(StrategyTest, WantsMoreThanAFreeTwentieth) {
	system_.space = {10 * kGiga, 100 * kGiga};
	EXPECT_TRUE(strategy_._IsSpaceEnough(directory_ / "", 0));
	system_.space = {5 * kGiga, 100 * kGiga};
	EXPECT_FALSE(strategy_._IsSpaceEnough(directory_ / "", 0)); // Exactly 5 %.
	EXPECT_TRUE(strategy_._IsSpaceEnough(directory_ / "", 1));
	system_.space = {6 * kGiga, 100 * kGiga};
	EXPECT_FALSE(strategy_._IsSpaceEnough(directory_ / "", -2 * static_cast<std::int64_t>(kGiga)));
}

TEST_F(StrategyTest, KeepsWhereHowMuchSpaceIsLacking) {
	system_.space = {6000, 100000};
	EXPECT_FALSE(strategy_._IsSpaceEnough(directory_ / "", -2000));
	const std::optional<SpaceShortage> shortage = LastSpaceShortage();
	ASSERT_TRUE(shortage);
	EXPECT_EQ(shortage->path, directory_ / "");
	EXPECT_EQ(shortage->available, 6000U);
	EXPECT_EQ(shortage->capacity, 100000U);
	EXPECT_EQ(shortage->lacking, 1001U);
	EXPECT_TRUE(strategy_._IsSpaceEnough(directory_ / "", -2000 + 1001)) << "so much is enough, and no byte less";
	EXPECT_FALSE(strategy_._IsSpaceEnough(directory_ / "", -2000 + 1000));
}

TEST_F(StrategyTest, DividesByACapacityOfNothing) {
	system_.space = {5, 0};
	EXPECT_TRUE(strategy_._IsSpaceEnough(directory_ / "", 0));
	EXPECT_FALSE(strategy_._IsSpaceEnough(directory_ / "", -5));
	EXPECT_FALSE(strategy_._IsSpaceEnough(directory_ / "", -6));
}

TEST_F(StrategyTest, TellsWhatItCalculatesWith) {
	system_.space = {5, 9};
	const test::SyslogCapture log;
	strategy_._IsSpaceEnough(directory_ / "", -7);
	EXPECT_THAT(
	    test::Lines(log), ElementsAre(Line{LOG_DEBUG, "strategy", "capacity: 9"},
	                          Line{LOG_DEBUG, "strategy", "available: 5"}, Line{LOG_DEBUG, "strategy", "delta: -7"}));
}

TEST_F(StrategyTest, PassesOnThatSpaceCannotBeMeasured) {
	EXPECT_EQ(
	    MessageOf([&] { strategy_._IsSpaceEnough(directory_ / "none", 0); }), "Invalid filesystem to testing space");
}

TEST_F(StrategyTest, ChecksAPackageAndThenUnpacksIt) {
	platform_.package_files = {{"sub/f", "content"}};
	strategy_._ExtractTarballTo("/the/package", directory_ / "to");
	EXPECT_THAT(platform_.events, ElementsAre("open /the/package 6", "extract " + directory_ / "to" + " 4"));
	EXPECT_EQ(test::ReadFile(directory_ / "to/sub/f"), "content");
	EXPECT_EQ(platform_.open_archives, 0);
}

TEST_F(StrategyTest, SaysThatUnpackingCannotBegin) {
	platform_.archive_init_works = false;
	EXPECT_EQ(
	    MessageOf([&] { strategy_._ExtractTarballTo("p", "d"); }), "Failed to extract package at tarnarchive_init");
	EXPECT_THAT(platform_.events, IsEmpty());
}

TEST_F(StrategyTest, UnpacksNothingOfAPackageWithoutAGoodSignature) {
	platform_.archive_open_works = false;
	platform_.package_files = {{"f", "content"}};
	EXPECT_EQ(MessageOf([&] { strategy_._ExtractTarballTo("/the/package", directory_ / "to"); }),
	    "tarnarchive_open /the/package failed, ret: 0");
	EXPECT_EQ(platform_.CountEvents("extract"), 0U);
	EXPECT_FALSE(fs::exists(directory_ / "to"));
	EXPECT_EQ(platform_.open_archives, 0);
}

TEST_F(StrategyTest, NamesThePackageThatCannotBeUnpacked) {
	platform_.archive_extract_works = false;
	EXPECT_EQ(MessageOf([&] { strategy_._ExtractTarballTo("/the/package", directory_ / "to"); }),
	    "tarnarchive_extract /the/package failed, ret: 0");
	EXPECT_EQ(platform_.open_archives, 0);
}

} // namespace
} // namespace tarn::dataupdate
