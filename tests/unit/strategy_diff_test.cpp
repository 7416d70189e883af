#include "dataupdate/file_lock.h"
#include "dataupdate/strategy.h"
#include "diff_strategy_test.h"
#include "library_test.h"

#include <gmock/gmock.h>
#include <json/value.h>

#include <sys/mount.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

constexpr char kRecord[] = "/var/lib/data_update/geo/version.json";
constexpr char kInsufficient[] = "No sufficient diff patched";

TEST_F(DiffStrategyTest, FindsWhatIsInTheWayBeforeAnythingIsReplaced) {
	Offer(R"({"f/new": {"operation": "create", "input_file": "in"}})", {{"in", "new"}});
	EXPECT_EQ(PrepareFailure(), "In the way of f/new: " + Installed("f"));
	EXPECT_FALSE(fs::exists(kMark));
}

TEST_F(DiffStrategyTest, FetchesAndAppliesTheChainInThisOrder) {
	Prepared();
	std::vector<testing::Matcher<std::string>> expected = {"mkdir " + Temp("sum")};
	for (const std::string version : {"6", "7", "8"}) {
		const std::string delta = Temp("delta_" + version);
		expected.insert(
		    expected.end(), {"mkdir " + delta, "user agent database 1024",
		                        StartsWith("/usr/bin/wget -N http://h/" + version + " -O " + Temp("d" + version) + " "),
		                        "open " + Temp("d" + version) + " 6", "extract " + delta + " 4",
		                        "/usr/tarn/sbin/tarndbudvcdiff decode " + Temp("sum/f") + " " + Temp("sum/f.patchout") +
		                            " " + delta + "/p.vcdiff"});
	}
	expected.emplace_back("mkdir " + directory_ / "volume/db/geo");
	EXPECT_THAT(platform_.events, testing::ElementsAreArray(expected));
	EXPECT_THAT(EntriesBelow(Area()), UnorderedElementsAre("geo_sum", "geo_sum/f", "geo_d6", "geo_d7", "geo_d8"));
}

TEST_F(DiffStrategyTest, PatchesOneCopyByEveryPackageAndInstallsItOnce) {
	DiffStrategy& strategy = Prepared();
	EXPECT_EQ(ReadFile(Temp("sum/f")), "5678");
	EXPECT_EQ(ReadFile(Installed("f")), "5");
	int renamed = 0;
	system_.on_call = [&](const std::string& call) { renamed += call == "renameat2" ? 1 : 0; };
	strategy.ApplyUpdate();
	system_.on_call = nullptr; // The strategy outlives the count.
	EXPECT_EQ(renamed, 1);
	EXPECT_EQ(ReadFile(Installed("f")), "5678");
	EXPECT_EQ(ReadFile(Installed("other")), "old");
}

TEST_F(DiffStrategyTest, RunsTheDecoderIsolated) {
	unsigned int options = 0;
	const auto decode = packages_.decode;
	packages_.decode = [&](const std::string& program, unsigned int given, const auto& arguments) {
		options = given;
		return decode(program, given, arguments);
	};
	Prepared();
	EXPECT_EQ(options, 0xBBU);
}

TEST_F(DiffStrategyTest, NeedsAPackageForEveryVersion) {
	diffs_.erase(7);
	EXPECT_EQ(PrepareFailure(), kInsufficient);
	EXPECT_EQ(PrepareFailure(4), kInsufficient);
	diffs_.erase(8);
	EXPECT_EQ(PrepareFailure(), kInsufficient);
	EXPECT_THAT(platform_.events, IsEmpty());
	remote_ = 6;
	EXPECT_NO_THROW(Prepared()); // What comes after the server's version does not matter.
}

TEST_F(DiffStrategyTest, UsesNoPackageOutsideTheChain) {
	remote_ = 7;
	Make(6)->PrepareUpdate();
	EXPECT_EQ(platform_.CountEvents("/usr/bin/wget -N http://h/7 "), 1U);
	EXPECT_EQ(platform_.CountEvents("/usr/bin/wget"), 1U);
}

TEST_F(DiffStrategyTest, RefusesWhatIsNotOlder) {
	EXPECT_EQ(PrepareFailure(8), kInsufficient);
	EXPECT_EQ(PrepareFailure(9), kInsufficient);
	diffs_.clear();
	EXPECT_EQ(PrepareFailure(5), kInsufficient);
	EXPECT_EQ(PrepareFailure(8), kInsufficient);
	EXPECT_THAT(platform_.events, IsEmpty());
}

TEST_F(DiffStrategyTest, StartsAtZeroWhereNothingIsInstalled) {
	remote_ = 1;
	for (const std::string link : {"http://h/0", "http://h/1"}) {
		diffs_.emplace(link.back() - '0', DiffInfo(link, 1));
		packages_.by_link[link] = Appending(link.substr(9));
	}
	packages_.by_link["http://h/0"] = {
	    {"patch_infos.json", R"({"f": {"operation": "create", "input_file": "in"}})"}, {"in", "0"}};
	Make(-1)->PrepareUpdate();
	EXPECT_EQ(ReadFile(Temp("sum/f")), "01");
	diffs_.erase(0);
	EXPECT_EQ(PrepareFailure(-1), kInsufficient);
}

TEST_F(DiffStrategyTest, StopsAtTheFirstPackageThatFails) {
	packages_.by_link.erase("http://h/7");
	EXPECT_EQ(PrepareFailure(), "Fail to wget url: http://h/7");
	EXPECT_EQ(platform_.CountEvents("/usr/bin/wget -N http://h/8 "), 0U);
	EXPECT_EQ(ReadFile(Installed("f")), "5");
	EXPECT_FALSE(fs::exists(Area()));
}

/** A chain of one package that fails in one way: nothing stays open, and the installed files stay as they are. */
class DiffPackageFailureTest : public DiffStrategyTest {
protected:
	DiffPackageFailureTest() { remote_ = 6; }

	void TearDown() override {
		EXPECT_EQ(platform_.open_archives, 0);
		EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("f", "other"));
		DiffStrategyTest::TearDown();
	}
};

TEST_F(DiffPackageFailureTest, NamesTheFileThatTheDecoderCannotPatch) {
	packages_.decode = [](const std::string&, unsigned int, const auto&) { return 1; };
	EXPECT_EQ(PrepareFailure(), "Fail to apply vcdiff on " + Temp("sum/f"));
}

TEST_F(DiffPackageFailureTest, NamesTheDescriptionThatIsMissing) {
	packages_.by_link["http://h/6"].erase("patch_infos.json");
	EXPECT_EQ(PrepareFailure(), "File not exist: " + Temp("delta_6/patch_infos.json"));
}

TEST_F(DiffPackageFailureTest, NamesThePackageThatCannotBeUnpacked) {
	platform_.archive_extract_works = false;
	EXPECT_EQ(PrepareFailure(), "tarnarchive_extract " + Temp("d6") + " failed, ret: 0");
}

TEST_F(DiffPackageFailureTest, NamesThePackageThatIsNotTrusted) {
	platform_.archive_open_works = false;
	EXPECT_EQ(PrepareFailure(), "tarnarchive_open " + Temp("d6") + " failed, ret: 0");
}

TEST_F(DiffPackageFailureTest, SaysThatUnpackingCannotBegin) {
	platform_.archive_init_works = false;
	EXPECT_EQ(PrepareFailure(), "Failed to extract package at tarnarchive_init");
}

TEST_F(DiffPackageFailureTest, NamesTheDirectoryThatCannotBeMade) {
	platform_.mkdir_works = false;
	EXPECT_EQ(PrepareFailure(), "Fail to create dir " + Temp("sum"));
}

TEST_F(DiffStrategyTest, WritesNothingForANameThatLeadsOut) {
	Offer(R"({"../x": {"operation": "create", "input_file": "in"}})", {{"in", "evil"}});
	EXPECT_EQ(PrepareFailure(), "Illegal file name in diff package: ../x");
	Offer(R"({"x": {"operation": "create", "input_file": "../geo_d6"}})");
	EXPECT_EQ(PrepareFailure(), "Illegal input file in diff package: ../geo_d6");
	EXPECT_THAT(EntriesBelow(directory_ / "volume/db"), UnorderedElementsAre("geo", "geo/f", "geo/other"));
}

TEST_F(DiffStrategyTest, ListsTheRelativeNamesOfChangedFiles) {
	Offer(
	    R"({"sub/new": {"operation": "create", "input_file": "in"}, "other": {"operation": "delete"}})", {{"in", ""}});
	EXPECT_THAT(Make()->GetModifiedFiles(), IsEmpty());
	EXPECT_EQ(strategy_->GetDeltaSize(), 0);
	strategy_->PrepareUpdate();
	EXPECT_THAT(strategy_->GetModifiedFiles(), ElementsAre("other", "sub/new"));
	strategy_->ApplyUpdate();
	EXPECT_THAT(strategy_->GetModifiedFiles(), ElementsAre("other", "sub/new"));
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("f", "sub", "sub/new"));
}

TEST_F(DiffStrategyTest, DeletesWhatWasCreatedOnTheWay) {
	WriteFile(Installed("new"), "somebody's");
	packages_.by_link["http://h/6"] = {
	    {"patch_infos.json", R"({"new": {"operation": "create", "input_file": "in"}})"}, {"in", "1"}};
	packages_.by_link["http://h/7"] = {{"patch_infos.json", R"({"new": {"operation": "delete"}})"}};
	Prepared().ApplyUpdate();
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("f", "other"));
}

TEST_F(DiffStrategyTest, MeasuresOldFilesFromTheWorkingDirectory) {
	Offer(R"({"made": {"operation": "create", "input_file": "in"}, "sub": {"operation": "delete"}})", {{"in", "1234"}});
	WriteFile(Installed("made"), std::string(1000, 'x'));
	WriteFile(directory_ / "here/made", std::string(100, 'x'));
	WriteFile(directory_ / "here/sub/file", std::string(10, 'x'));
	EXPECT_EQ(Prepared().GetDeltaSize(), -4); // Nothing of these names is here.
	const fs::path before = fs::current_path();
	fs::current_path(directory_ / "here");
	EXPECT_EQ(strategy_->GetDeltaSize(), 100 + 10 - 4);
	fs::current_path(before);
}

TEST_F(DiffStrategyTest, CountsTheCopyOfAFileThatIsDeletedAfterwards) {
	packages_.by_link["http://h/8"] = {{"patch_infos.json", R"({"f": {"operation": "delete"}})"}};
	EXPECT_EQ(Prepared().GetDeltaSize(), -3); // "567" stays in the temporary area.
}

TEST_F(DiffStrategyTest, NeedsMoreThanATwentiethFreeAfterwards) {
	Offer(R"({"new": {"operation": "create", "input_file": "in"}})", {{"in", std::string(100, 'x')}});
	fs::remove_all(Installed(""));
	system_.space = {150, 1000};
	EXPECT_EQ(PrepareFailure(), "Disk space is too low"); // 50 left of 1000.
	EXPECT_TRUE(fs::is_directory(Installed("")));
	EXPECT_THAT(EntriesBelow(Installed("")), IsEmpty());
	system_.space = {151, 1000};
	EXPECT_NO_THROW(Prepared());
}

TEST_F(DiffStrategyTest, NeverUsesWhatAKilledRunLeftBehind) {
	WriteFile(Temp("sum/f"), "left behind ");
	WriteFile(Temp("sum/f.patchout"), "left behind");
	WriteFile(Temp("delta_6/patch_infos.json"), R"({"other": {"operation": "delete"}})");
	WriteFile(Temp("delta_7/stale"), "x");
	WriteFile(Temp("delta_9/stale"), "x");
	WriteFile(Temp("d6"), "left behind");
	bool is_clear = true;
	platform_.extract_more = [&](const std::string& delta) { is_clear = is_clear && !fs::exists(delta + "/stale"); };
	Prepared();
	EXPECT_TRUE(is_clear);
	EXPECT_EQ(ReadFile(Temp("sum/f")), "5678");
	EXPECT_EQ(ReadFile(Temp("d6")), "package");
	EXPECT_THAT(EntriesBelow(Area()), UnorderedElementsAre("geo_sum", "geo_sum/f", "geo_d6", "geo_d7", "geo_d8",
	                                      "geo_delta_9", "geo_delta_9/stale")); // What it does not use.
}

TEST_F(DiffStrategyTest, NeverFollowsALinkThatLiesInItsDirectorysPlace) {
	fs::create_directories(directory_ / "theirs");
	fs::create_directories(Area());
	fs::create_directory_symlink(directory_ / "theirs", Temp("sum"));
	Prepared();
	EXPECT_TRUE(fs::is_directory(fs::symlink_status(Temp("sum"))));
	EXPECT_THAT(EntriesBelow(directory_ / "theirs"), IsEmpty());
}

TEST_F(DiffStrategyTest, TakesNoLockToPrepare) {
	Prepared();
	EXPECT_FALSE(fs::exists(kUsingLock));
}

TEST_F(DiffStrategyTest, WaitsTenMinutesForReadersAndThenChangesNothing) {
	DiffStrategy& strategy = Prepared();
	const FileLock reader(kUsingLock, 0);
	EXPECT_EQ(
	    MessageOf([&] { strategy.ApplyUpdate(); }), std::string("Fail to diff update: Fail to lock ") + kUsingLock);
	EXPECT_EQ(system_.polls, 6000);
	EXPECT_FALSE(fs::exists(kMark));
	EXPECT_EQ(ReadFile(Installed("f")), "5");
}

TEST_F(DiffStrategyTest, HoldsReadersOffWhileItReplaces) {
	DiffStrategy& strategy = Prepared();
	bool changed = false;
	system_.on_call = [&](const std::string& call) {
		if (call == "renameat2") {
			changed = true;
			EXPECT_ANY_THROW(FileLock(kUsingLock, 0));
		}
	};
	strategy.ApplyUpdate();
	EXPECT_TRUE(changed);
	EXPECT_NO_THROW(FileLock(kUsingLock, 0));
}

TEST_F(DiffStrategyTest, SetsNoMarkThatNobodyAskedFor) {
	Prepared().ApplyUpdate();
	EXPECT_FALSE(fs::exists(fs::path(kMark).parent_path()));
}

TEST_F(DiffStrategyTest, SaysWhyItCannotReplaceTheFiles) {
	DiffStrategy& strategy = Prepared();
	system_.Fail("renameat2", ENOSPC);
	system_.Fail("linkat", ENOSPC);
	EXPECT_THAT(MessageOf([&] { strategy.ApplyUpdate(); }),
	    AllOf(StartsWith("Fail to diff update: "), HasSubstr("No space left on device")));
	EXPECT_FALSE(fs::exists(kMark));
	EXPECT_NO_THROW(FileLock(kUsingLock, 0));
}

TEST_F(DiffStrategyTest, SaysThatANewFileWasLost) {
	DiffStrategy& strategy = Prepared();
	fs::remove(Temp("sum/f"));
	EXPECT_EQ(MessageOf([&] { strategy.ApplyUpdate(); }), "Fail to diff update: Not a regular file: " + Temp("sum/f"));
}

TEST_F(DiffStrategyTest, SaysWhatTookTheFilesPlaceMeanwhile) {
	DiffStrategy& strategy = Prepared();
	fs::remove(Installed("f"));
	WriteFile(Installed("f/in/the/way"), "");
	EXPECT_THAT(MessageOf([&] { strategy.ApplyUpdate(); }),
	    AllOf(StartsWith("Fail to diff update: "), HasSubstr(Installed("f"))));
}

TEST_F(DiffStrategyTest, LooksAtNoMarkAndTouchesNone) {
	WriteFile(kRecord, "{}");
	WriteFile(kMark, "");
	Prepared().ApplyUpdate();
	EXPECT_EQ(ReadFile(Installed("f")), "5678");
	EXPECT_THAT(EntriesBelow("/var/lib/data_update/geo"), UnorderedElementsAre("version.json", "replacing"));
	EXPECT_NO_THROW(Prepared()); // Which version is installed is its caller's to tell.
}

TEST_F(DiffStrategyTest, LeavesEveryFileWhenTheLastOneCannotBeInstalled) {
	Offer(R"({"f": {"operation": "delete"}, "z": {"operation": "create", "input_file": "in"}})", {{"in/file", "x"}});
	DiffStrategy& strategy = Prepared(); // A directory is the copy's affair.
	EXPECT_TRUE(fs::is_directory(Temp("sum/z")));
	EXPECT_EQ(MessageOf([&] { strategy.ApplyUpdate(); }), "Fail to diff update: Not a regular file: " + Temp("sum/z"));
	EXPECT_EQ(ReadFile(Installed("f")), "5");
}

TEST_F(DiffStrategyTest, PassesOnWhatTheJsonLibraryThrows) {
	Offer("[]");
	EXPECT_THROW(Prepared(), Json::LogicError);
	Offer(R"({"f": {"operation": ["delete"]}})");
	EXPECT_THROW(Prepared(), Json::LogicError);
}

TEST_F(DiffStrategyTest, ChangesNothingWithoutHavingBeenPrepared) {
	Make()->ApplyUpdate();
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("f", "other"));
	EXPECT_THAT(strategy_->GetModifiedFiles(), IsEmpty());
}

TEST_F(DiffStrategyTest, RunsNoScriptOnAFileThatItsRecordTellsApart) {
	Offer(R"({"f": {"operation": "update", "input_file": "p.sqlitediff"}})", {{"p.sqlitediff", ""}});
	DatabaseStatus status;
	status.data_version = 5;
	for (const std::string& name : {std::string("f"), Installed("f")}) { // As diff and full updates record it.
		status.file_statuses = {{name, FileStatus(std::string(96, '0'))}};
		strategy_.emplace("geo", status, RemoteInfo(6, 1, false, "l"), diffs_, directory_ / "volume",
		    directory_ / "volume/db/geo", directory_ / "");
		EXPECT_EQ(MessageOf([&] { strategy_->PrepareUpdate(); }), "File " + Installed("f") + " digest check fail");
	}
}

TEST_F(DiffStrategyTest, SweepsTheWholeTemporaryAreaAtItsEnd) {
	WriteFile(Area() + "/poi_v3", "of another database");
	Prepared();
	EXPECT_TRUE(fs::exists(Area() + "/poi_v3"));
	const test::SyslogCapture log;
	strategy_.reset();
	EXPECT_FALSE(fs::exists(Area()));
	EXPECT_TRUE(fs::exists(directory_ / "volume/@tmp"));
	WriteFile(Area() + "/poi_v3", "again");
	Make();
	strategy_.reset(); // Never prepared.
	EXPECT_FALSE(fs::exists(Area()));
	EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(DiffStrategyTest, CleansUpInThisOrderWhateverFails) {
	Prepared();
	std::vector<std::string> places;
	for (const std::string name : {"d6", "d7", "d8"}) {
		fs::remove(Temp(name));
	}
	for (const std::string name : {"sum", "d6", "d7", "d8", "delta_6", "delta_7", "delta_8"}) {
		fs::create_directories(Temp(name) + "/busy");
		if (mount("tmpfs", (Temp(name) + "/busy").c_str(), "tmpfs", 0, nullptr) != 0) {
			GTEST_SKIP() << "nothing can be mounted here";
		}
		places.push_back(Temp(name));
	}
	const test::SyslogCapture log;
	strategy_.reset();
	std::vector<Line> expected;
	for (const std::string& place : places) {
		ASSERT_EQ(umount((place + "/busy").c_str()), 0);
		expected.push_back({LOG_ERR, "strategy", "Failed to clear tmp data: Fail to remove all: " + place});
	}
	expected.push_back({LOG_ERR, "strategy", "Failed to clear tmp data: Fail to remove all: " + Area()});
	EXPECT_EQ(LinesOf(log, "strategy"), expected);
}

} // namespace
} // namespace tarn::dataupdate
