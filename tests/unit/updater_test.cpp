#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/file_digest.h"
#include "dataupdate/updater.h"
#include "fake_packages.h"
#include "fake_platform.h"
#include "fake_system.h"
#include "library_test.h"
#include "private_root.h"

#include <gmock/gmock.h>

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

using testing::Key;

constexpr char kOfAbc[] =
    "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7";

class UpdaterTest : public test::FixedPathsTest {
protected:
	UpdaterTest() { platform_.package_files = {{"a", "abc"}, {"sub/b", ""}}; }

	std::string Installed(const std::string& name) const { return directory_ / ("volume/db/geo/" + name); }
	DatabaseStatus Update() const {
		DatabaseStatus installed;
		installed.data_version = 3;
		return Updater().Update("geo", installed, RemoteInfo(12, 1700000000, true, "http://h/p"), {},
		    directory_ / "volume", directory_ / "volume/db/geo", directory_ / "");
	}

	test::TemporaryDirectory directory_;
	test::FakePlatform platform_;
	test::FakeSystem system_;
	test::SyslogCapture log_;
};

TEST_F(UpdaterTest, ReturnsTheNewStateWithADigestOfEveryFile) {
	const DatabaseStatus status = Update();
	EXPECT_EQ(status.data_version, 12);
	EXPECT_EQ(status.last_fetch_time, 1700000000);
	ASSERT_THAT(status.file_statuses, ElementsAre(Key(Installed("a")), Key(Installed("sub/b"))));
	EXPECT_EQ(status.file_statuses.at(Installed("a")).sha384_digest, kOfAbc);
}

TEST_F(UpdaterTest, RunsTheHooksAroundTheReplacementOnly) {
	WriteFile(Installed("old"), "old");
	std::vector<std::string> seen;
	platform_.on_plugin_action = [&] { seen.emplace_back(fs::exists(Installed("old")) ? "old" : "new"); };
	Update();
	EXPECT_THAT(seen, ElementsAre("old", "new"));
	const auto hooks = std::find_if(platform_.events.begin(), platform_.events.end(),
	    [](const std::string& event) { return event.compare(0, 4, "hook") == 0; });
	EXPECT_EQ(*(hooks - 1), "mkdir " + directory_ / "volume/db/geo");
	EXPECT_THAT(std::vector<std::string>(hooks, platform_.events.end()),
	    ElementsAre("hook init database_autoupdate database_autoupdate/version_change", "hook set DATABASE=geo",
	        "hook set CHANGED_FILES=" + Installed("a") + ":" + Installed("sub/b"),
	        "hook set DELIMITER=:", "hook action 4", "hook action 5", "hook exit"));
}

TEST_F(UpdaterTest, LogsItsSteps) {
	Update();
	EXPECT_THAT(LinesOf(log_, "updater.cpp"),
	    ElementsAre(Line{LOG_NOTICE, "updater.cpp", "Prepare diff update: geo"},
	        Line{LOG_WARNING, "updater.cpp", "Diff update fail, try full update: No sufficient diff patched"},
	        Line{LOG_NOTICE, "updater.cpp", "Prepare full update: geo"},
	        Line{LOG_NOTICE, "updater.cpp", "Apply update: geo"}));
}

TEST_F(UpdaterTest, RunsNoHooksWhenPreparingFails) {
	platform_.archive_open_works = false;
	EXPECT_THAT(MessageOf([this] { Update(); }), StartsWith("tarnarchive_open "));
	EXPECT_EQ(platform_.CountEvents("hook"), 0U);
}

TEST_F(UpdaterTest, RunsNoHookAfterAReplacementThatFailed) {
	system_.Fail("linkat", EIO, 10);
	EXPECT_THAT(MessageOf([this] { Update(); }), StartsWith("Fail to full update: "));
	EXPECT_EQ(platform_.CountEvents("hook action 4"), 1U);
	EXPECT_EQ(platform_.CountEvents("hook action 5"), 0U);
	EXPECT_EQ(platform_.CountEvents("hook exit"), 1U);
	EXPECT_TRUE(fs::is_empty(directory_ / "volume/@tmp/data_update"));
}

TEST_F(UpdaterTest, GoesOnWhateverTheHooksDo) {
	platform_.plugin_action_result = -1;
	EXPECT_EQ(Update().data_version, 12);
}

TEST_F(UpdaterTest, FailsWhenTheFilesCannotBeBroughtToTheDisk) {
	system_.Fail("syncfs", EIO);
	EXPECT_EQ(MessageOf([this] { Update(); }), "Fail to sync " + directory_ / "volume/db/geo" + ": Input/output error");
}

TEST_F(UpdaterTest, BringsNothingToTheDiskWhereNothingIsInstalled) {
	int hooks = 0;
	platform_.on_plugin_action = [&] {
		if (++hooks == 2) {
			fs::remove_all(directory_ / "volume/db"); // Whoever does such a thing.
		}
	};
	EXPECT_EQ(Update().data_version, 12);
	EXPECT_FALSE(fs::exists(directory_ / "volume/db"));
}

TEST_F(UpdaterTest, RemovesTemporaryDataBeforeItWaitsForTheDisk) {
	system_.Fail("syncfs", EIO);
	MessageOf([this] { Update(); });
	EXPECT_TRUE(fs::is_empty(directory_ / "volume/@tmp/data_update"));
}

/** An update from version 3 to 5 by two packages, which append to the file "a" and create another one. */
class ChainUpdaterTest : public UpdaterTest {
protected:
	ChainUpdaterTest() {
		packages_.by_link["http://h/4"] = {
		    {"patch_infos.json", R"({"a": {"operation": "update", "input_file": "p.vcdiff"}})"}, {"p.vcdiff", "b"}};
		packages_.by_link["http://h/5"] = {
		    {"patch_infos.json", R"({"a": {"operation": "update", "input_file": "p.vcdiff"},
		        "gone": {"operation": "delete"}, "sub/new": {"operation": "create", "input_file": "in"}})"},
		    {"p.vcdiff", "c"}, {"in", ""}};
		packages_.by_link["http://h/full"] = {{"a", "abc"}, {"sub/new", ""}};
		WriteFile(Installed("a"), "a");
		WriteFile(Installed("gone"), "old");
		WriteFile(Installed("other"), "old");
	}

	DatabaseStatus Update() const {
		UpdateResult result = UpdateAndTell();
		return InstalledRecord::TakeStatus({result.data_version, result.last_fetch_time, std::move(result.files)});
	}
	static std::vector<std::string> Names(const FileList& files) {
		std::vector<std::string> names;
		for (std::size_t at = 0; at < files.Size(); ++at) {
			names.emplace_back(files.Name(at));
		}
		return names;
	}
	UpdateResult UpdateAndTell(const UpdateAdvice& advice = {}) const {
		DatabaseStatus installed;
		installed.data_version = 3;
		return Updater().UpdateAndTell("geo", installed, RemoteInfo(5, 1700000000, true, "http://h/full"),
		    {{4, DiffInfo("http://h/4", 1)}, {5, DiffInfo("http://h/5", 1)}}, directory_ / "volume",
		    directory_ / "volume/db/geo", directory_ / "", advice);
	}
	std::vector<Line> Log() const { return LinesOf(log_, "updater.cpp"); }
	static std::vector<Line> FallbackAfter(const std::string& error) {
		return {{LOG_NOTICE, "updater.cpp", "Prepare diff update: geo"},
		    {LOG_WARNING, "updater.cpp", "Diff update fail, try full update: " + error},
		    {LOG_NOTICE, "updater.cpp", "Prepare full update: geo"}};
	}

	test::FakePackages packages_{platform_};
};

TEST_F(ChainUpdaterTest, UpdatesByTheChainAlone) {
	const DatabaseStatus status = Update();
	EXPECT_EQ(status.data_version, 5);
	EXPECT_EQ(status.last_fetch_time, 1700000000);
	ASSERT_THAT(status.file_statuses, ElementsAre(Key("a"), Key("sub/new"))); // What was deleted has no digest.
	EXPECT_EQ(status.file_statuses.at("a").sha384_digest, kOfAbc);
	EXPECT_TRUE(fs::exists(Installed("other")));
	EXPECT_EQ(platform_.CountEvents("/usr/bin/wget -N http://h/full "), 0U);
	EXPECT_THAT(Log(), ElementsAre(Line{LOG_NOTICE, "updater.cpp", "Prepare diff update: geo"},
	                       Line{LOG_NOTICE, "updater.cpp", "Apply update: geo"}));
}

TEST_F(ChainUpdaterTest, TellsTheHooksTheRelativeNamesAroundTheReplacement) {
	std::vector<std::string> seen;
	platform_.on_plugin_action = [&] { seen.push_back(test::ReadFile(Installed("a"))); };
	Update();
	EXPECT_THAT(seen, ElementsAre("a", "abc"));
	EXPECT_EQ(platform_.CountEvents("hook set CHANGED_FILES=a:gone:sub/new"), 1U);
}

TEST_F(ChainUpdaterTest, TellsTheDigestsOfLargeFilesAsTheHooksLeaveThem) {
	const std::string large(std::size_t{2} << 20U, 'x');
	packages_.by_link["http://h/4"] = {
	    {"patch_infos.json", R"({"a": {"operation": "create", "input_file": "in"}})"}, {"in", large}};
	packages_.by_link["http://h/5"] = {{"patch_infos.json",
	                                       R"({"a": {"operation": "update", "input_file": "p.vcdiff"},
	                                           "b": {"operation": "create", "input_file": "in"}})"},
	    {"p.vcdiff", "y"}, {"in", large}};
	DatabaseStatus status = Update();
	ASSERT_EQ(test::ReadFile(Installed("a")), large + "y");
	EXPECT_EQ(status.file_statuses.at("a").sha384_digest, FileSha384(Installed("a")));
	EXPECT_EQ(status.file_statuses.at("b").sha384_digest, FileSha384(Installed("b")));
	platform_.on_plugin_action = [&] { WriteFile(Installed("a"), "of a hook"); };
	status = Update();
	ASSERT_EQ(test::ReadFile(Installed("a")), "of a hook");
	EXPECT_EQ(status.file_statuses.at("a").sha384_digest, FileSha384(Installed("a")));
}

TEST_F(ChainUpdaterTest, TellsWhatItDeletedAsWell) {
	const UpdateResult result = UpdateAndTell();
	EXPECT_FALSE(result.is_full);
	EXPECT_THAT(Names(result.files), ElementsAre("a", "gone", "sub/new"));
	EXPECT_EQ(result.files.TextOf("a"), kOfAbc);
	EXPECT_EQ(result.files.TextOf("gone"), "");
}

TEST_F(ChainUpdaterTest, TellsThatTheFullPackageReplacedEverything) {
	packages_.by_link.erase("http://h/4");
	const UpdateResult result = UpdateAndTell();
	EXPECT_TRUE(result.is_full);
	EXPECT_THAT(Names(result.files), ElementsAre(Installed("a"), Installed("sub/new")));
}

TEST_F(ChainUpdaterTest, DownloadsNoFullPackageThatTheHostDoesNotWant) {
	packages_.by_link["http://h/5"]["patch_infos.json"] = "{";
	int asked = 0;
	const UpdateAdvice advice = {{}, [&] {
		                             ++asked;
		                             throw std::logic_error("too large");
	                             }};
	EXPECT_THROW(UpdateAndTell(advice), std::logic_error);
	EXPECT_EQ(asked, 1);
	EXPECT_EQ(platform_.CountEvents("/usr/bin/wget -N http://h/full "), 0U);
	EXPECT_EQ(test::ReadFile(Installed("a")), "a");
	EXPECT_FALSE(fs::exists(directory_ / "volume/@tmp/data_update"));
	packages_.by_link["http://h/5"]["patch_infos.json"] = "{}";
	EXPECT_FALSE(UpdateAndTell(advice).is_full);
	EXPECT_EQ(asked, 1) << "a chain that can be used needs no leave";
}

TEST_F(ChainUpdaterTest, FallsBackToTheFullPackageWithOneWarning) {
	packages_.by_link["http://h/5"]["patch_infos.json"] = "{";
	const DatabaseStatus status = Update();
	EXPECT_THAT(status.file_statuses, ElementsAre(Key(Installed("a")), Key(Installed("sub/new"))));
	EXPECT_EQ(status.file_statuses.at(Installed("a")).sha384_digest, kOfAbc);
	EXPECT_FALSE(fs::exists(Installed("other")));
	std::vector<Line> expected =
	    FallbackAfter("Fail to decode: " + directory_ / "volume/@tmp/data_update/geo_delta_5/patch_infos.json");
	expected.push_back({LOG_NOTICE, "updater.cpp", "Apply update: geo"});
	EXPECT_EQ(Log(), expected);
	EXPECT_EQ(log_.Count(LOG_WARNING), 1U);
}

TEST_F(ChainUpdaterTest, ReleasesTheDiffsDataBeforeItPreparesTheFullPackage) {
	packages_.by_link["http://h/5"]["patch_infos.json"] = "{";
	WriteFile(directory_ / "volume/@tmp/data_update/poi_v1", "swept with it");
	bool swept = false;
	platform_.extract_more = [&](const std::string& destination) {
		if (destination == directory_ / "volume/@tmp/data_update/geo_full") {
			swept = !fs::exists(directory_ / "volume/@tmp/data_update/poi_v1") &&
			        !fs::exists(directory_ / "volume/@tmp/data_update/geo_sum");
		}
	};
	Update();
	EXPECT_TRUE(swept);
}

TEST_F(ChainUpdaterTest, ThrowsTheFullPackagesErrorWhenBothFail) {
	packages_.by_link.erase("http://h/4");
	packages_.by_link.erase("http://h/full");
	EXPECT_EQ(MessageOf([this] { Update(); }), "Fail to wget url: http://h/full");
	EXPECT_EQ(Log(), FallbackAfter("Fail to wget url: http://h/4"));
	EXPECT_EQ(platform_.CountEvents("hook"), 0U);
	EXPECT_EQ(test::ReadFile(Installed("a")), "a");
}

TEST_F(ChainUpdaterTest, FallsBackForNoOtherException) {
	packages_.decode = [](const std::string&, unsigned int, const auto&) -> int { throw std::runtime_error("other"); };
	EXPECT_THROW(Update(), std::runtime_error);
	EXPECT_THAT(Log(), ElementsAre(Line{LOG_NOTICE, "updater.cpp", "Prepare diff update: geo"}));
	EXPECT_EQ(test::ReadFile(Installed("a")), "a");
}

TEST_F(ChainUpdaterTest, DoesNotFallBackOnceFilesAreBeingReplaced) {
	system_.Fail("renameat2", EIO, 10);
	system_.Fail("linkat", EIO, 10);
	EXPECT_THAT(MessageOf([this] { Update(); }), StartsWith("Fail to diff update: "));
	EXPECT_EQ(platform_.CountEvents("/usr/bin/wget -N http://h/full "), 0U);
	EXPECT_EQ(platform_.CountEvents("hook action 4"), 1U);
	EXPECT_EQ(platform_.CountEvents("hook action 5"), 0U);
	EXPECT_EQ(platform_.CountEvents("hook exit"), 1U);
	EXPECT_FALSE(fs::exists(directory_ / "volume/@tmp/data_update"));
}

TEST_F(ChainUpdaterTest, PatchesAgainForAHostThatKeepsItsOwnRecords) {
	WriteFile("/var/lib/data_update/geo/version.json", "{}");
	Update();
	WriteFile(Installed("a"), "a");
	Update();
	EXPECT_EQ(log_.Count(LOG_WARNING), 0U);
	EXPECT_THAT(test::EntriesBelow("/var/lib/data_update/geo"), ElementsAre("version.json")); // No mark was asked for.
}

TEST_F(ChainUpdaterTest, CanBeInterruptedAgainAfterAnUpdate) {
	Update();
	RequestInterruption();
	EXPECT_EQ(MessageOf([this] { Update(); }), "Interrupted");
	ForgetInterruption();
}

TEST_F(ChainUpdaterTest, DescribesWhatItHasChangedBeforeItHeedsAnInterruption) {
	platform_.on_plugin_action = [this] {
		if (test::ReadFile(Installed("a")) == "abc") {
			RequestInterruption();
		}
	};
	EXPECT_THAT(Update().file_statuses, ElementsAre(Key("a"), Key("sub/new")));
	EXPECT_TRUE(IsInterrupted());
	ForgetInterruption();
}

class FileStatusCheckTest : public testing::Test {
protected:
	FileStatusCheckTest() { WriteFile(directory_ / "f", "abc"); }

	test::TemporaryDirectory directory_;
	test::SyslogCapture log_;
};

TEST_F(FileStatusCheckTest, PassesWhenEveryDigestIsRight) {
	EXPECT_TRUE(CheckStatus({{"f", FileStatus(kOfAbc)}}, directory_ / ""));
	EXPECT_TRUE(CheckStatus({}, "/nonexistent"));
	EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(FileStatusCheckTest, FindsFilesByAbsoluteNamesUnderAnyRoot) {
	EXPECT_TRUE(CheckStatus({{directory_ / "f", FileStatus(kOfAbc)}}, "/some/other/root"));
	EXPECT_THAT(CalculateStatus({directory_ / "f"}, "/some/other/root"), ElementsAre(Key(directory_ / "f")));
	WriteFile(directory_ / "f", "changed");
	EXPECT_FALSE(CheckStatus({{directory_ / "f", FileStatus(kOfAbc)}}, "/some/other/root"));
}

TEST_F(FileStatusCheckTest, NamesTheFileThatIsGone) {
	EXPECT_FALSE(CheckStatus({{"a", FileStatus(kOfAbc)}, {"f", FileStatus("wrong too")}}, directory_ / "/"));
	EXPECT_THAT(test::Lines(log_), ElementsAre(Line{LOG_ERR, "updater.cpp", "File " + directory_ / "/a is gone"}));
}

TEST_F(FileStatusCheckTest, NamesTheFileThatChangedEvenAtTheSameSize) {
	WriteFile(directory_ / "f", "abd");
	EXPECT_FALSE(CheckStatus({{"f", FileStatus(kOfAbc)}}, directory_.Path()));
	EXPECT_THAT(
	    test::Lines(log_), ElementsAre(Line{LOG_ERR, "updater.cpp", "File " + directory_ / "f digest check fail"}));
}

TEST_F(FileStatusCheckTest, NeverTakesADigestInCapitals) {
	std::string upper = kOfAbc;
	upper[0] = 'C';
	EXPECT_FALSE(CheckStatus({{"f", FileStatus(upper)}}, directory_.Path()));
}

TEST_F(FileStatusCheckTest, TakesNoDigestOfAnotherLength) {
	const std::string right = kOfAbc;
	for (const std::string& wrong : {right + "0", right.substr(1), right.substr(0, right.size() - 1), std::string()}) {
		EXPECT_FALSE(CheckStatus({{"f", FileStatus(wrong)}}, directory_.Path())) << wrong;
	}
}

TEST_F(FileStatusCheckTest, FailsForADirectoryInAFilesPlace) {
	fs::create_directory(directory_ / "d");
	EXPECT_FALSE(CheckStatus({{"d", FileStatus(kOfAbc)}}, directory_.Path()));
	EXPECT_THAT(
	    test::Lines(log_), ElementsAre(Line{LOG_ERR, "updater.cpp", "File " + directory_ / "d digest check fail"}));
}

TEST_F(FileStatusCheckTest, PassesOnThatAStatusCannotBeHad) {
	fs::create_symlink("loop", directory_ / "loop");
	EXPECT_THROW(static_cast<void>(CheckStatus({{"loop", FileStatus(kOfAbc)}}, directory_.Path())), std::exception);
	EXPECT_THROW(static_cast<void>(CalculateStatus({"loop"}, directory_.Path())), std::exception);
	EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(FileStatusCheckTest, LeavesMissingFilesOutOfACalculation) {
	const auto statuses = CalculateStatus({"missing", "f"}, directory_.Path());
	ASSERT_THAT(statuses, ElementsAre(Key("f")));
	EXPECT_EQ(statuses.at("f").sha384_digest, kOfAbc);
	EXPECT_TRUE(log_.Lines().empty());
}

class FixerTest : public UpdaterTest {
protected:
	Fixer TheFixer() const {
		return {"geo", RemoteInfo(12, 7, false, "http://h/p"), directory_ / "volume", directory_ / "volume/db/geo",
		    directory_ / ""};
	}
	static DatabaseStatus Status(int version, const std::map<std::string, FileStatus>& files) {
		DatabaseStatus status;
		status.data_version = version;
		status.file_statuses = files;
		return status;
	}
};

TEST_F(FixerTest, SeesANeedWhenNothingWasEverInstalled) {
	EXPECT_TRUE(TheFixer().IsFixNeeded(Status(-1, {})));
	EXPECT_THAT(test::Lines(log_), ElementsAre(Line{LOG_ERR, "updater.cpp", "geo not been updated yet. Need Fix"}));
	EXPECT_FALSE(TheFixer().IsFixNeeded(Status(-2, {}))); // Forced: a version like others.
}

TEST_F(FixerTest, SeesNoNeedWhenEveryFileIsRight) {
	WriteFile(Installed("a"), "abc");
	EXPECT_FALSE(TheFixer().IsFixNeeded(Status(5, {{"a", FileStatus(kOfAbc)}})));
	EXPECT_FALSE(TheFixer().IsFixNeeded(Status(5, {})));
	EXPECT_THAT(test::Lines(log_), testing::IsEmpty());
}

TEST_F(FixerTest, SeesANeedWhenAFileIsNot) {
	EXPECT_TRUE(TheFixer().IsFixNeeded(Status(5, {{"a", FileStatus(kOfAbc)}})));
	EXPECT_THAT(test::Lines(log_), ElementsAre(Line{LOG_ERR, "updater.cpp", "File " + Installed("a") + " is gone"},
	                                   Line{LOG_INFO, "updater.cpp", "geo file check fail, Need Fix"}));
}

TEST_F(FixerTest, ReinstallsTheServersVersionWithHooks) {
	WriteFile(Installed("a"), "damaged");
	const DatabaseStatus status = TheFixer().Fix();
	EXPECT_EQ(status.data_version, 12);
	EXPECT_EQ(status.last_fetch_time, 7);
	ASSERT_THAT(status.file_statuses, ElementsAre(Key(Installed("a")), Key(Installed("sub/b"))));
	EXPECT_EQ(status.file_statuses.at(Installed("a")).sha384_digest, kOfAbc);
	EXPECT_EQ(test::ReadFile(Installed("a")), "abc");
	EXPECT_EQ(platform_.CountEvents("hook action 4"), 1U);
	EXPECT_EQ(platform_.CountEvents("hook action 5"), 1U);
	EXPECT_THAT(LinesOf(log_, "updater.cpp"), ElementsAre(Line{LOG_WARNING, "updater.cpp", "Try to fix database geo"}));
}

TEST_F(FixerTest, RunsNoHooksWhenPreparingFails) {
	platform_.archive_open_works = false;
	EXPECT_THAT(MessageOf([this] { return TheFixer().Fix(); }), StartsWith("tarnarchive_open "));
	EXPECT_EQ(platform_.CountEvents("hook"), 0U);
}

TEST_F(FixerTest, RunsNoHookAfterAReplacementThatFailed) {
	system_.Fail("linkat", EIO, 10);
	EXPECT_THAT(MessageOf([this] { return TheFixer().Fix(); }), StartsWith("Fail to full update: "));
	EXPECT_EQ(platform_.CountEvents("hook action 5"), 0U);
}

TEST_F(FixerTest, FailsWhenTheFilesCannotBeBroughtToTheDisk) {
	system_.Fail("syncfs", EIO);
	EXPECT_THAT(MessageOf([this] { return TheFixer().Fix(); }), StartsWith("Fail to sync "));
}

} // namespace
} // namespace tarn::dataupdate
