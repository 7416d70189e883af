#include "dataupdate/file_lock.h"
#include "dataupdate/strategy.h"
#include "fake_platform.h"
#include "fake_system.h"
#include "library_test.h"
#include "private_root.h"

#include <gmock/gmock.h>

#include <sys/mount.h>
#include <syslog.h>

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

constexpr char kUsingLock[] = "/run/data_update/using_geo.lock";
constexpr char kMark[] = "/var/lib/data_update/geo/replacing";

class ForceInstallTest : public test::FixedPathsTest {
protected:
	std::string Temp(const std::string& name) const { return directory_ / ("volume/@tmp/data_update" + name); }
	std::string Installed(const std::string& name) const { return directory_ / ("volume/db/geo" + name); }
	ForceInstallByLink Strategy() const {
		return {"geo", "http://h/p", directory_ / "volume", directory_ / "volume/db/geo", "/"};
	}

	test::TemporaryDirectory directory_;
	test::FakePlatform platform_;
	test::FakeSystem system_;
};

TEST_F(ForceInstallTest, DownloadsUnderAFixedName) {
	Strategy().PrepareUpdate();
	EXPECT_THAT(platform_.events,
	    ElementsAre("mkdir " + Temp(""), "user agent database 1024",
	        StartsWith("/usr/bin/wget -N http://h/p -O " + Temp("/geo_debug") + " "), "mkdir " + Installed("")));
}

TEST_F(ForceInstallTest, UnpacksOverWhatIsInstalled) {
	WriteFile(Installed("/kept"), "old");
	WriteFile(Installed("/changed"), "old");
	platform_.package_files = {{"changed", "new"}, {"added", "new"}};
	ForceInstallByLink strategy = Strategy();
	strategy.PrepareUpdate();
	EXPECT_EQ(ReadFile(Installed("/changed")), "old");
	strategy.ApplyUpdate();
	EXPECT_EQ(ReadFile(Installed("/kept")), "old");
	EXPECT_EQ(ReadFile(Installed("/changed")), "new");
	EXPECT_EQ(ReadFile(Installed("/added")), "new");
	EXPECT_EQ(platform_.CountEvents("open " + Temp("/geo_debug") + " 6"), 1U);
}

TEST_F(ForceInstallTest, ListsNoFilesAndNoDelta) {
	platform_.package_files = {{"added", "new"}};
	ForceInstallByLink strategy = Strategy();
	strategy.PrepareUpdate();
	strategy.ApplyUpdate();
	EXPECT_THAT(strategy.GetModifiedFiles(), IsEmpty());
	EXPECT_EQ(strategy.GetDeltaSize(), 0);
}

TEST_F(ForceInstallTest, ChecksNoSpace) {
	system_.space = {0, 1000};
	ForceInstallByLink strategy = Strategy();
	strategy.PrepareUpdate();
	EXPECT_NO_THROW(strategy.ApplyUpdate());
}

TEST_F(ForceInstallTest, PassesOnThatTheDownloadFailed) {
	platform_.execl = [](const std::string&, unsigned int, const test::FakePlatform::Arguments&) { return 1; };
	const test::SyslogCapture log;
	EXPECT_EQ(MessageOf([this] { Strategy().PrepareUpdate(); }), "Fail to wget url: http://h/p");
	EXPECT_THAT(LinesOf(log, "strategy"), IsEmpty()); // A missing package is no failure of the clean-up.
	EXPECT_FALSE(fs::exists(Installed("")));
}

TEST_F(ForceInstallTest, NeverUnpacksWhatAKilledRunDownloaded) {
	WriteFile(Temp("/geo_debug"), "left behind by another run");
	ForceInstallByLink strategy = Strategy();
	strategy.PrepareUpdate();
	EXPECT_EQ(ReadFile(Temp("/geo_debug")), "package");
}

TEST_F(ForceInstallTest, SaysWhyItCannotInstall) {
	ForceInstallByLink strategy = Strategy();
	strategy.PrepareUpdate();
	platform_.archive_extract_works = false;
	EXPECT_EQ(MessageOf([&] { strategy.ApplyUpdate(); }),
	    "Fail to force install: tarnarchive_extract " + Temp("/geo_debug") + " failed, ret: 0");
	platform_.archive_open_works = false;
	EXPECT_EQ(MessageOf([&] { strategy.ApplyUpdate(); }),
	    "Fail to force install: tarnarchive_open " + Temp("/geo_debug") + " failed, ret: 0");
	platform_.archive_init_works = false;
	EXPECT_EQ(MessageOf([&] { strategy.ApplyUpdate(); }),
	    "Fail to force install: Failed to extract package at tarnarchive_init");
	platform_.archive_init_works = platform_.archive_open_works = platform_.archive_extract_works = true;
	platform_.extract_more = [](const std::string&) { throw std::runtime_error("other"); };
	EXPECT_EQ(MessageOf([&] { strategy.ApplyUpdate(); }), "Fail to force install: other");
	EXPECT_NO_THROW(FileLock(kUsingLock, 0));
}

TEST_F(ForceInstallTest, WaitsForReadersUpTo600Seconds) {
	ForceInstallByLink strategy = Strategy();
	strategy.PrepareUpdate();
	const FileLock reader(kUsingLock, 0);
	EXPECT_EQ(
	    MessageOf([&] { strategy.ApplyUpdate(); }), std::string("Fail to force install: Fail to lock ") + kUsingLock);
	EXPECT_EQ(system_.polls, 6000);
}

TEST_F(ForceInstallTest, SetsNoMark) {
	ForceInstallByLink strategy = Strategy();
	strategy.PrepareUpdate();
	strategy.ApplyUpdate();
	EXPECT_FALSE(fs::exists(fs::path(kMark).parent_path())); // Nobody asked for a file there.
}

TEST_F(ForceInstallTest, RemovesTheWholeTemporaryAreaAtItsEnd) {
	WriteFile(Temp("/poi_v3"), "of another database");
	{
		ForceInstallByLink strategy = Strategy();
		strategy.PrepareUpdate();
		EXPECT_TRUE(fs::exists(Temp("/poi_v3")));
	}
	EXPECT_FALSE(fs::exists(Temp("")));
}

TEST_F(ForceInstallTest, LogsWhatItCannotCleanUp) {
	std::optional<ForceInstallByLink> strategy;
	strategy.emplace("geo", "l", directory_ / "volume", Installed(""), "/");
	strategy->PrepareUpdate();
	fs::remove(Temp("/geo_debug"));
	fs::create_directories(Temp("/geo_debug/in"));
	if (mount("tmpfs", Temp("/geo_debug/in").c_str(), "tmpfs", 0, nullptr) != 0) {
		GTEST_SKIP() << "nothing can be mounted here";
	}
	const test::SyslogCapture log;
	strategy.reset();
	ASSERT_EQ(umount(Temp("/geo_debug/in").c_str()), 0);
	EXPECT_THAT(LinesOf(log, "strategy"),
	    ElementsAre(
	        testing::AllOf(testing::Field(&Line::priority, LOG_ERR),
	            testing::Field(&Line::text, StartsWith("Failed to clean tarball '" + Temp("/geo_debug") + "': "))),
	        Line{LOG_ERR, "strategy", "Failed to clean tmp data: Fail to remove all: " + Temp("")}));
}

} // namespace
} // namespace tarn::dataupdate
