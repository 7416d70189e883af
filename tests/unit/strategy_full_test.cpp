#include "dataupdate/file_lock.h"
#include "dataupdate/internal/early_digests.h"
#include "dataupdate/project_lock.h"
#include "dataupdate/strategy.h"
#include "dataupdate/utils.h"
#include "fake_platform.h"
#include "fake_system.h"
#include "library_test.h"
#include "private_root.h"

#include <gmock/gmock.h>

#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

constexpr char kUsingLock[] = "/run/data_update/using_geo.lock";
constexpr char kMark[] = "/var/lib/data_update/geo/replacing";

class FullStrategyTest : public test::FixedPathsTest {
protected:
	std::string Temp(const std::string& name) const { return directory_ / ("volume/@tmp/data_update/" + name); }
	std::string Installed(const std::string& name) const { return directory_ / ("volume/db/geo/" + name); }
	FullStrategy Strategy() const {
		return {"geo", RemoteInfo(12, 5, false, "http://h/p"), directory_ / "volume", directory_ / "volume/db/geo",
		    directory_ / ""};
	}
	std::string PrepareFailure() const {
		return MessageOf([this] { Strategy().PrepareUpdate(); });
	}

	test::TemporaryDirectory directory_;
	test::FakePlatform platform_;
	test::FakeSystem system_;
};

TEST_F(FullStrategyTest, PreparesInThisOrder) {
	Strategy().PrepareUpdate();
	EXPECT_THAT(
	    platform_.events, ElementsAre("mkdir " + directory_ / "volume/@tmp/data_update", "user agent database 1024",
	                          StartsWith("/usr/bin/wget -N http://h/p -O " + Temp("geo_v12") + " "),
	                          "mkdir " + Temp("geo_full"), "open " + Temp("geo_v12") + " 6",
	                          "extract " + Temp("geo_full") + " 4", "mkdir " + directory_ / "volume/db/geo"));
}

TEST_F(FullStrategyTest, ListsTheAbsoluteTargetsOfAllFiles) {
	platform_.package_files = {{"b", ""}, {"sub/deep/a", ""}};
	FullStrategy strategy = Strategy();
	EXPECT_THAT(strategy.GetModifiedFiles(), IsEmpty());
	strategy.PrepareUpdate();
	EXPECT_THAT(strategy.GetModifiedFiles(), ElementsAre(Installed("b"), Installed("sub/deep/a")));
}

/** A working directory that is removed while the test is in it. */
class LostWorkingDirectory {
public:
	explicit LostWorkingDirectory(const fs::path& path) {
		fs::create_directory(path);
		fs::current_path(path);
		fs::remove(path);
	}
	~LostWorkingDirectory() {
		std::error_code ignored;
		fs::current_path(before_, ignored);
	}
	LostWorkingDirectory(const LostWorkingDirectory&) = delete;
	LostWorkingDirectory& operator=(const LostWorkingDirectory&) = delete;

private:
	fs::path before_ = fs::current_path();
};

TEST_F(FullStrategyTest, NeedsNoWorkingDirectory) {
	platform_.package_files = {{"b", ""}, {"sub/deep/a", ""}};
	const LostWorkingDirectory lost(directory_ / "lost");
	FullStrategy strategy = Strategy();
	strategy.PrepareUpdate();
	strategy.ApplyUpdate();
	EXPECT_THAT(strategy.GetModifiedFiles(), ElementsAre(Installed("b"), Installed("sub/deep/a")));
	EXPECT_TRUE(fs::exists(Installed("sub/deep/a")));
}

TEST_F(FullStrategyTest, TouchesNoInstalledFileWhilePreparing) {
	WriteFile(Installed("old"), "old");
	platform_.package_files = {{"new", ""}};
	Strategy().PrepareUpdate();
	EXPECT_THAT(EntriesBelow(Installed("")), ElementsAre("old"));
}

TEST_F(FullStrategyTest, ReplacesEverythingThatIsInstalled) {
	WriteFile(Installed("gone/file"), "old");
	WriteFile(Installed("kept"), "old");
	platform_.package_files = {{"kept", "new"}, {"sub/file", "content"}};
	FullStrategy strategy = Strategy();
	strategy.PrepareUpdate();
	strategy.ApplyUpdate();
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("kept", "sub", "sub/file"));
	EXPECT_EQ(ReadFile(Installed("kept")), "new");
	EXPECT_EQ(ReadFile(Temp("geo_full/kept")), "new"); // Stays until the end.
}

TEST_F(FullStrategyTest, HasReadLargeFilesBeforeTheyAreInstalled) {
	const std::string large(std::size_t{1} << 20U, 'x');
	platform_.package_files = {{"large", large}, {"small", "x"}};
	FullStrategy strategy = Strategy();
	strategy.PrepareUpdate();
	strategy.ApplyUpdate();
	std::istringstream content(large);
	EXPECT_EQ(strategy.DigestsBegun()->Take(Installed("large")), GetSha384(content));
	EXPECT_EQ(strategy.DigestsBegun()->Take(Installed("small")), std::nullopt);
}

TEST_F(FullStrategyTest, RemovesThePackageBeforeTheDiskWouldTakeIt) {
	platform_.package_files = {{"file", "content"}};
	FullStrategy strategy = Strategy();
	strategy.PrepareUpdate();
	EXPECT_TRUE(fs::exists(Temp("geo_v12")));
	strategy.ApplyUpdate();
	EXPECT_FALSE(fs::exists(Temp("geo_v12")));
}

TEST_F(FullStrategyTest, EmptiesTheInstallationForAnEmptyPackage) {
	WriteFile(Installed("old"), "old");
	FullStrategy strategy = Strategy();
	strategy.PrepareUpdate();
	EXPECT_THAT(strategy.GetModifiedFiles(), IsEmpty());
	strategy.ApplyUpdate();
	EXPECT_TRUE(fs::is_directory(Installed("")));
	EXPECT_THAT(EntriesBelow(Installed("")), IsEmpty());
}

TEST_F(FullStrategyTest, DoesNotReproduceEmptyDirectories) {
	platform_.package_files = {{"sub/file", ""}};
	platform_.extract_more = [](const std::string& to) { fs::create_directories(to + "/empty/deep"); };
	FullStrategy strategy = Strategy();
	strategy.PrepareUpdate();
	strategy.ApplyUpdate();
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("sub", "sub/file"));
}

TEST_F(FullStrategyTest, InstallsRegularFilesOnly) {
	platform_.package_files = {{"file", "content"}, {"sub/real", "linked"}};
	platform_.extract_more = [](const std::string& to) {
		fs::create_symlink("nowhere", to + "/dangling");
		fs::create_symlink("sub/real", to + "/link");
		ASSERT_EQ(mkfifo((to + "/fifo").c_str(), 0600), 0);
	};
	FullStrategy strategy = Strategy();
	strategy.PrepareUpdate();
	EXPECT_THAT(strategy.GetModifiedFiles(), ElementsAre(Installed("file"), Installed("sub/real")));
	strategy.ApplyUpdate();
	EXPECT_EQ(ReadFile(Installed("sub/real")), "linked");
}

TEST_F(FullStrategyTest, RefusesALinkThatLeadsOut) {
	WriteFile(directory_ / "secret", "secret");
	platform_.extract_more = [&](const std::string& to) { fs::create_symlink(directory_ / "secret", to + "/link"); };
	EXPECT_EQ(PrepareFailure(), "path not in base");
}

TEST_F(FullStrategyTest, SaysWhyTheChangesCannotBeListed) {
	platform_.extract_more = [](const std::string& to) { fs::create_symlink("loop", to + "/loop"); };
	EXPECT_THAT(PrepareFailure(), AllOf(StartsWith("Fail to calculate modify info: "), HasSubstr("geo_full/loop")));
}

TEST_F(FullStrategyTest, NeedsMoreThanATwentiethFreeAfterwards) {
	platform_.package_files = {{"new", std::string(100, 'x')}};
	system_.space = {150, 1000};
	EXPECT_EQ(PrepareFailure(), "Disk space is too low"); // 50 left of 1000.
	WriteFile(Installed("old"), "x");                     // Frees a byte.
	FullStrategy strategy = Strategy();
	EXPECT_NO_THROW(strategy.PrepareUpdate());
	EXPECT_EQ(strategy.GetDeltaSize(), -99);
	EXPECT_EQ(ReadFile(Installed("old")), "x");
}

TEST_F(FullStrategyTest, AsksForItsDeltaThroughTheVirtualOperation) {
	class Huge : public FullStrategy {
	public:
		using FullStrategy::FullStrategy;
		std::int64_t GetDeltaSize() const override { return -1000; }
	};
	system_.space = {1000, 1000};
	Huge strategy("geo", RemoteInfo(12, 5, false, "l"), directory_ / "volume", Installed(""), directory_ / "");
	EXPECT_EQ(MessageOf([&] { strategy.PrepareUpdate(); }), "Disk space is too low");
}

TEST_F(FullStrategyTest, CountsAFirstInstallationAsNothing) {
	platform_.package_files = {{"new", "12345"}};
	FullStrategy strategy = Strategy();
	strategy.PrepareUpdate();
	EXPECT_TRUE(fs::is_directory(Installed("")));
	EXPECT_EQ(strategy.GetDeltaSize(), -5);
}

TEST_F(FullStrategyTest, PassesOnDownloadAndPackageErrors) {
	platform_.archive_extract_works = false;
	EXPECT_EQ(PrepareFailure(), "tarnarchive_extract " + Temp("geo_v12") + " failed, ret: 0");
	platform_.archive_open_works = false;
	EXPECT_EQ(PrepareFailure(), "tarnarchive_open " + Temp("geo_v12") + " failed, ret: 0");
	platform_.archive_init_works = false;
	EXPECT_EQ(PrepareFailure(), "Failed to extract package at tarnarchive_init");
	platform_.execl = [](const std::string&, unsigned int, const test::FakePlatform::Arguments&) { return 4; };
	EXPECT_EQ(PrepareFailure(), "Fail to wget url: http://h/p");
	platform_.mkdir_works = false;
	EXPECT_EQ(PrepareFailure(), "Fail to create dir " + directory_ / "volume/@tmp/data_update");
}

TEST_F(FullStrategyTest, NeverInstallsWhatAKilledRunLeftBehind) {
	WriteFile(Temp("geo_full/stale"), "unsigned");
	WriteFile(Temp("geo_v12"), "left behind");
	WriteFile(Temp("geo_v11"), "x"); // This and the other have no part in the update.
	WriteFile(Temp("poi_v3"), "x");
	platform_.package_files = {{"new", ""}};
	{
		FullStrategy strategy = Strategy();
		strategy.PrepareUpdate();
		strategy.ApplyUpdate();
	}
	EXPECT_THAT(EntriesBelow(Installed("")), ElementsAre("new"));
	EXPECT_THAT(EntriesBelow(Temp("")), UnorderedElementsAre("geo_v11", "poi_v3"));
}

TEST_F(FullStrategyTest, FreesTheSpaceThatAKilledRunHoldsBeforeTheDownload) {
	for (const char* left : {"full", "staged", "replaced", "sum"}) {
		WriteFile(Temp(std::string("geo_") + left + "/file"), "large");
	}
	platform_.execl = [&](const std::string&, unsigned int, const test::FakePlatform::Arguments&) {
		EXPECT_THAT(EntriesBelow(Temp("")), IsEmpty());
		return 1;
	};
	EXPECT_THAT(PrepareFailure(), StartsWith("Fail to wget url: "));
}

TEST_F(FullStrategyTest, InstallsFileByFileWhereFilesGetTheirGroupFromTheDirectory) {
	platform_.package_files = {{"a", "new"}};
	fs::create_directories(Installed(""));
	ASSERT_EQ(chmod(Installed("").c_str(), 02755), 0);
	FullStrategy strategy = Strategy();
	strategy.PrepareUpdate();
	EXPECT_FALSE(fs::exists(Temp("geo_staged")));
	strategy.ApplyUpdate();
	EXPECT_EQ(ReadFile(Installed("a")), "new");
	EXPECT_EQ(fs::hard_link_count(Installed("a")), 1U) << "a second name would keep the group of the first";
}

TEST_F(FullStrategyTest, ClearsItsDirectoryRightBeforeItIsUsed) {
	platform_.execl = [&](const std::string&, unsigned int, const test::FakePlatform::Arguments& arguments) {
		WriteFile(Temp("geo_full/stale"), "unsigned"); // By whoever it was, while the package came.
		WriteFile(arguments.at(3), "package");
		return 0;
	};
	platform_.extract_more = [&](const std::string&) { EXPECT_FALSE(fs::exists(Temp("geo_full/stale"))); };
	Strategy().PrepareUpdate();
}

TEST_F(FullStrategyTest, SaysThatItsUnpackedFilesAreGone) {
	platform_.extract_more = [](const std::string& destination) { fs::remove_all(destination); };
	EXPECT_EQ(PrepareFailure(), "failed to read file stat: " + Temp("geo_full"));
}

TEST_F(FullStrategyTest, RemovesNoDirectoryInItsPackagesPlace) {
	fs::create_directories(Temp("geo_v12"));
	platform_.execl = [](const std::string&, unsigned int, const test::FakePlatform::Arguments&) { return 1; };
	EXPECT_ANY_THROW(Strategy().PrepareUpdate());
	EXPECT_TRUE(fs::is_directory(Temp("geo_v12")));
}

TEST_F(FullStrategyTest, SetsNoMark) {
	FullStrategy strategy = Strategy();
	strategy.PrepareUpdate();
	strategy.ApplyUpdate();
	EXPECT_FALSE(fs::exists(fs::path(kMark).parent_path())); // Nobody asked for a file there.
}

TEST_F(FullStrategyTest, HoldsReadersOffWhileItReplaces) {
	WriteFile("/usr/share/data_update/databases.conf", R"({"geo": {}})");
	platform_.package_files = {{"new", ""}};
	FullStrategy strategy = Strategy();
	strategy.PrepareUpdate();
	EXPECT_FALSE(fs::exists(kUsingLock));
	{ const FileLock first_update(kUsingLock, 0); }
	const int reader = TARNDBUDGetFileLock("geo", 0);
	ASSERT_GE(reader, 0);
	EXPECT_EQ(
	    MessageOf([&] { strategy.ApplyUpdate(); }), std::string("Fail to full update: Fail to lock ") + kUsingLock);
	EXPECT_EQ(system_.polls, 6000); // 600 seconds.
	TARNDBUDReleaseFileLock(reader);
	strategy.ApplyUpdate();
	EXPECT_NO_THROW(FileLock(kUsingLock, 0));
}

TEST_F(FullStrategyTest, SaysWhyItCannotReplaceTheFiles) {
	platform_.package_files = {{"new", ""}};
	FullStrategy strategy = Strategy();
	strategy.PrepareUpdate();
	system_.Fail("renameat2", EXDEV);
	system_.Fail("linkat", ENOSPC);
	EXPECT_THAT(MessageOf([&] { strategy.ApplyUpdate(); }),
	    AllOf(StartsWith("Fail to full update: "), HasSubstr("No space left on device")));
	EXPECT_NO_THROW(FileLock(kUsingLock, 0));
	fs::remove_all(Installed(""));
	EXPECT_EQ(MessageOf([&] { strategy.ApplyUpdate(); }),
	    "Fail to full update: failed to read file stat: " + directory_ / "volume/db/geo");
}

TEST_F(FullStrategyTest, HoldsReadersOffForOneRenameOfEachEntryAtTheTop) {
	platform_.package_files = {{"dir/a", "new"}, {"dir/b", "new"}, {"dir/sub/c", "new"}};
	WriteFile(Installed("old/1"), "old");
	WriteFile(Installed("old/2"), "old");
	FullStrategy strategy = Strategy();
	strategy.PrepareUpdate();
	int renamed = 0;
	system_.on_call = [&](const std::string& call) {
		renamed += call == "renameat2" ? 1 : 0;
		EXPECT_NE(call, "linkat");
	};
	strategy.ApplyUpdate();
	system_.on_call = nullptr;
	EXPECT_EQ(renamed, 2);
	EXPECT_EQ(ReadFile(Installed("dir/sub/c")), "new");
	EXPECT_FALSE(fs::exists(Installed("old")));
	EXPECT_EQ(ReadFile(Temp("geo_replaced/old/1")), "old"); // Until the strategy goes.
}

TEST_F(FullStrategyTest, InstallsFileByFileWhereNothingCanBeMoved) {
	platform_.package_files = {{"dir/a", "new"}};
	WriteFile(Installed("old"), "old");
	FullStrategy strategy = Strategy();
	strategy.PrepareUpdate();
	system_.Fail("renameat2", EXDEV, 10);
	strategy.ApplyUpdate();
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("dir", "dir/a"));
	EXPECT_EQ(ReadFile(Installed("dir/a")), "new");
}

TEST_F(FullStrategyTest, InstallsNothingThatAKilledRunMadeReady) {
	platform_.package_files = {{"a", "new"}};
	WriteFile(Temp("geo_staged/foreign"), "from a killed run");
	WriteFile(Temp("geo_replaced/a"), "from a killed run");
	WriteFile(Installed("a"), "old");
	FullStrategy strategy = Strategy();
	strategy.PrepareUpdate();
	strategy.ApplyUpdate();
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("a"));
	EXPECT_EQ(ReadFile(Installed("a")), "new");
}

TEST_F(FullStrategyTest, RemovesItsTemporaryDataWhateverHappened) {
	platform_.package_files = {{"new", ""}};
	{
		FullStrategy strategy = Strategy();
		strategy.PrepareUpdate();
		EXPECT_THAT(EntriesBelow(Temp("")), UnorderedElementsAre("geo_v12", "geo_full", "geo_full/new", "geo_replaced",
		                                        "geo_staged", "geo_staged/new"));
	}
	EXPECT_THAT(EntriesBelow(Temp("")), IsEmpty());
	platform_.archive_extract_works = false;
	PrepareFailure();
	EXPECT_THAT(EntriesBelow(Temp("")), IsEmpty());
}

TEST_F(FullStrategyTest, RemovesNothingThatItNeverMade) {
	WriteFile(Temp("geo_v12"), "theirs");
	WriteFile(Temp("geo_full/f"), "theirs");
	const test::SyslogCapture log;
	{ const FullStrategy unprepared = Strategy(); }
	EXPECT_THAT(test::Lines(log), IsEmpty());
	EXPECT_TRUE(fs::exists(Temp("geo_v12")));
	EXPECT_TRUE(fs::exists(Temp("geo_full/f")));
}

TEST_F(FullStrategyTest, RemovesThePackageAloneWhenTheDownloadFailed) {
	platform_.execl = [&](const std::string&, unsigned int, const test::FakePlatform::Arguments&) {
		fs::create_directories(Temp("geo_full")); // Somebody else's, made in between.
		return 1;
	};
	const test::SyslogCapture log;
	PrepareFailure();
	EXPECT_THAT(LinesOf(log, "strategy"), IsEmpty());
	EXPECT_TRUE(fs::exists(Temp("geo_full")));
}

TEST_F(FullStrategyTest, LogsWhatItCannotCleanUp) {
	std::optional<FullStrategy> strategy;
	strategy.emplace("geo", RemoteInfo(12, 5, false, "l"), directory_ / "volume", Installed(""), directory_ / "");
	strategy->PrepareUpdate();
	fs::remove(Temp("geo_v12"));
	WriteFile(Temp("geo_v12/in/the/way"), "");
	if (mount("tmpfs", Temp("geo_full").c_str(), "tmpfs", 0, nullptr) != 0) {
		GTEST_SKIP() << "nothing can be mounted here";
	}
	const test::SyslogCapture log;
	strategy.reset();
	ASSERT_EQ(umount(Temp("geo_full").c_str()), 0);
	EXPECT_THAT(LinesOf(log, "strategy"),
	    ElementsAre(testing::AllOf(testing::Field(&Line::priority, LOG_ERR),
	                    testing::Field(&Line::text, StartsWith("Failed to clean tarball '" + Temp("geo_v12") + "': "))),
	        Line{LOG_ERR, "strategy", "Failed to clean tmp data: Fail to remove all: " + Temp("geo_full")}));
}

} // namespace
} // namespace tarn::dataupdate
