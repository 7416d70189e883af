#include "call_from_c.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/project_lock.h"
#include "fake_system.h"
#include "library_test.h"
#include "mocks.h"
#include "open_descriptors.h"
#include "private_root.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

constexpr char kSource[] = "project_lock.cpp";
constexpr char kUsingLock[] = "/run/data_update/using_geo.lock";
constexpr char kUpdateLock[] = "/run/data_update/update_geo.lock";
constexpr char kAnyLock[] = "/run/data_update/update_any.lock";

constexpr char kDatabases[] = "/usr/share/data_update/databases.conf";

class ProjectLockTest : public test::FixedPathsTest {
protected:
	void SetUp() override {
		FixedPathsTest::SetUp();
		if (!IsSkipped()) {
			WriteFile(kDatabases, R"({"geo": {}})");
		}
	}

	test::FakeSystem system_;
};

TEST_F(ProjectLockTest, IsUnavailableBeforeTheFirstUpdate) {
	fs::create_directories("/run/data_update");
	const test::SyslogCapture log;
	EXPECT_EQ(TARNDBUDGetFileLock("geo", 0), -2);
	EXPECT_THAT(
	    test::Lines(log), ElementsAre(Line{LOG_ERR, kSource, std::string("Failed to open lock file: ") + kUsingLock}));
	EXPECT_FALSE(fs::exists(kUsingLock));
}

TEST_F(ProjectLockTest, IsRefusedForAProjectThatIsNotSupported) {
	const test::SyslogCapture log;
	EXPECT_EQ(TARNDBUDGetFileLock("none", 5), -2);
	EXPECT_THAT(
	    test::Lines(log), ElementsAre(Line{LOG_ERR, kSource, "Failed to check supported: Project none not supported"},
	                          Line{LOG_ERR, kSource, "[none] is not supported, skip getting lock"}));
}

TEST_F(ProjectLockTest, IsRefusedWithoutAConfiguration) {
	fs::remove(kDatabases);
	const test::SyslogCapture log;
	EXPECT_EQ(TARNDBUDGetFileLock("geo", 0), -2);
	EXPECT_THAT(test::Lines(log),
	    ElementsAre(
	        Line{LOG_ERR, kSource, "Failed to check supported: File not exist: /usr/share/data_update/databases.conf"},
	        Line{LOG_ERR, kSource, "[geo] is not supported, skip getting lock"}));
}

TEST_F(ProjectLockTest, IsSharedByReadersAndHoldsOffTheUpdater) {
	{ const FileLock first_update(kUsingLock, 0); }
	const int one = TARNDBUDGetFileLock("geo", 0);
	const int two = TARNDBUDGetFileLock("geo", 0);
	ASSERT_GE(one, 0);
	ASSERT_GE(two, 0);
	EXPECT_EQ(MessageOf([] { FileLock(kUsingLock, 0); }), std::string("Fail to lock ") + kUsingLock);
	TARNDBUDReleaseFileLock(one);
	EXPECT_EQ(MessageOf([] { FileLock(kUsingLock, 0); }), std::string("Fail to lock ") + kUsingLock);
	TARNDBUDReleaseFileLock(two);
	EXPECT_NO_THROW(FileLock(kUsingLock, 0));
}

TEST_F(ProjectLockTest, TriesOnceWithoutATimeout) {
	const FileLock updater(kUsingLock, 0);
	const test::SyslogCapture log;
	EXPECT_EQ(TARNDBUDGetFileLock("geo", 0), -1);
	EXPECT_EQ(system_.polls, 0);
	EXPECT_THAT(test::Lines(log), ElementsAre(Line{LOG_ERR, kSource, "Get file lock timeout."}));
	EXPECT_THAT(test::OpenDescriptors(kUsingLock), testing::SizeIs(1)) << "the updater's alone";
}

TEST_F(ProjectLockTest, CountsTheTimeThatReadingTheConfigurationTakes) {
	const FileLock updater(kUsingLock, 0);
	fs::remove(kDatabases);
	ASSERT_EQ(mkfifo(kDatabases, 0600), 0);
	std::thread slow_disk([this] {
		std::ofstream pipe(kDatabases); // Returns once the configuration is being read.
		system_.Advance(std::chrono::seconds(5));
		pipe << R"({"geo": {}})";
	});
	EXPECT_EQ(TARNDBUDGetFileLock("geo", 5), -1);
	slow_disk.join();
	EXPECT_EQ(system_.polls, 1);
}

TEST_F(ProjectLockTest, WaitsForAReplacementToEnd) {
	auto updater = std::make_unique<FileLock>(kUsingLock, 0);
	system_.on_poll = [&](int poll) {
		if (poll == 4) {
			updater.reset();
		}
	};
	const int fd = TARNDBUDGetFileLock("geo", 1);
	EXPECT_GE(fd, 0);
	EXPECT_EQ(system_.polls, 4);
	TARNDBUDReleaseFileLock(fd);
}

TEST_F(ProjectLockTest, GivesUpWhenTheTimeIsUp) {
	const FileLock updater(kUsingLock, 0);
	EXPECT_EQ(TARNDBUDGetFileLock("geo", 2), -1);
	EXPECT_EQ(system_.polls, 20);
}

TEST_F(ProjectLockTest, IsNotInheritedByPrograms) {
	{ const FileLock first_update(kUsingLock, 0); }
	const int fd = TARNDBUDGetFileLock("geo", 0);
	EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
	TARNDBUDReleaseFileLock(fd);
	EXPECT_EQ(fcntl(fd, F_GETFD), -1); // Closed.
}

TEST_F(ProjectLockTest, EndsWithTheLastChildThatWasForkedUnderIt) {
	{ const FileLock first_update(kUsingLock, 0); }
	const int fd = TARNDBUDGetFileLock("geo", 0);
	ASSERT_GE(fd, 0);
	const pid_t child = fork();
	if (child == 0) {
		prctl(PR_SET_PDEATHSIG, SIGKILL);
		pause();
		_exit(0);
	}
	ASSERT_GT(child, 0);
	close(fd); // As by the end of this process.
	EXPECT_EQ(MessageOf([] { FileLock(kUsingLock, 0); }), std::string("Fail to lock ") + kUsingLock);
	kill(child, SIGKILL);
	EXPECT_EQ(waitpid(child, nullptr, 0), child);
	EXPECT_NO_THROW(FileLock(kUsingLock, 0));
}

TEST_F(ProjectLockTest, ReleasesNothingForANegativeResult) {
	const test::SyslogCapture log;
	TARNDBUDReleaseFileLock(-1);
	TARNDBUDReleaseFileLock(-2);
	EXPECT_THAT(test::Lines(log), IsEmpty());
}

TEST_F(ProjectLockTest, ClosesTheFileEvenWhenUnlockingFails) {
	{ const FileLock first_update(kUsingLock, 0); }
	const int fd = TARNDBUDGetFileLock("geo", 0);
	ASSERT_GE(fd, 0);
	const test::SyslogCapture log;
	system_.Fail("flock", EBADF);
	TARNDBUDReleaseFileLock(fd);
	EXPECT_THAT(test::Lines(log), ElementsAre(Line{LOG_ERR, kSource, "Failed to release file lock"}));
	EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(ProjectLockTest, PassesOnWhatTheJsonLibraryThrows) {
	WriteFile(kDatabases, "7");
	EXPECT_THROW(TARNDBUDReleaseFileLock(TARNDBUDGetFileLock("geo", 0)), Json::LogicError);
}

TEST_F(ProjectLockTest, CanBeUsedFromC) {
	{ const FileLock first_update(kUsingLock, 0); }
	const int fd = TarnTestLockFromC("geo", 0);
	ASSERT_GE(fd, 0);
	TarnTestReleaseFromC(fd);
	EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

class CheckerTest : public test::FixedPathsTest {
protected:
	test::FakeSystem system_;
	std::shared_ptr<NiceMock<test::MockServiceConfig>> config_ = std::make_shared<NiceMock<test::MockServiceConfig>>();
	Checker checker_{config_};
};

TEST_F(CheckerTest, SeesAnUpdateByItsLock) {
	EXPECT_CALL(*config_, CheckSupported("geo")).Times(2);
	{
		const FileLock update(kUpdateLock, 0);
		EXPECT_TRUE(checker_.IsUpdating("geo"));
		EXPECT_FALSE(checker_.IsAnyUpdating());
	}
	EXPECT_FALSE(checker_.IsUpdating("geo"));
	EXPECT_EQ(system_.polls, 0) << "it tries once";
}

TEST_F(CheckerTest, SeesAnyUpdateByItsLock) {
	{
		const FileLock update(kAnyLock, 0);
		EXPECT_TRUE(checker_.IsAnyUpdating());
	}
	EXPECT_FALSE(checker_.IsAnyUpdating());
}

TEST_F(CheckerTest, LeavesNoLockHeld) {
	EXPECT_FALSE(checker_.IsUpdating("geo"));
	EXPECT_FALSE(checker_.IsAnyUpdating());
	EXPECT_NO_THROW(FileLock(kUpdateLock, 0));
	EXPECT_NO_THROW(FileLock(kAnyLock, 0));
}

TEST_F(CheckerTest, TakesALockThatCannotBeTriedForAnUpdate) {
	WriteFile("/run/data_update", "in the way");
	EXPECT_TRUE(checker_.IsUpdating("geo"));
	EXPECT_TRUE(checker_.IsAnyUpdating());
}

TEST_F(CheckerTest, PassesOnThatAnIdIsNotSupported) {
	EXPECT_CALL(*config_, CheckSupported("none")).WillOnce(Throw(UpdateError("Project none not supported")));
	EXPECT_EQ(MessageOf([&] { return checker_.IsUpdating("none"); }), "Project none not supported");
	EXPECT_FALSE(fs::exists("/run/data_update/update_none.lock"));
}

} // namespace
} // namespace tarn::dataupdate
