#include "dataupdate/file_lock.h"
#include "fake_system.h"
#include "library_test.h"
#include "open_descriptors.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <limits>
#include <memory>
#include <string>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

using test::OpenDescriptors;
using testing::SizeIs;

class FileLockTest : public testing::Test {
protected:
	std::string Path() const { return directory_ / "run/sub/x.lock"; }
	std::string Failure(unsigned long timeout) const {
		return MessageOf([&] { FileLock(Path(), timeout); });
	}

	test::TemporaryDirectory directory_;
	test::FakeSystem system_;
};

TEST_F(FileLockTest, CreatesTheFileAndItsDirectoriesAndKeepsThem) {
	{ const FileLock lock(Path(), 0); }
	EXPECT_TRUE(fs::is_regular_file(Path()));
	EXPECT_TRUE(fs::is_empty(Path()));
	EXPECT_THAT(OpenDescriptors(Path()), IsEmpty());
}

TEST_F(FileLockTest, LetsEverybodyOpenTheFileAndNobodyWriteIt) {
	const mode_t before = umask(0);
	const FileLock lock(Path(), 0);
	umask(before);
	struct stat status {};
	ASSERT_EQ(stat(Path().c_str(), &status), 0);
	EXPECT_EQ(status.st_mode & 07777U, 0644U);
	ASSERT_THAT(OpenDescriptors(Path()), SizeIs(1));
	EXPECT_EQ(fcntl(OpenDescriptors(Path()).front(), F_GETFL) & O_ACCMODE, O_RDONLY);
}

TEST_F(FileLockTest, TriesOnceWithoutATimeout) {
	const FileLock holder(Path(), 0);
	EXPECT_EQ(Failure(0), "Fail to lock " + Path());
	EXPECT_EQ(system_.polls, 0);
	EXPECT_THAT(OpenDescriptors(Path()), SizeIs(1));
}

TEST_F(FileLockTest, GetsTheLockWhenItIsReleasedInTime) {
	auto holder = std::make_unique<FileLock>(Path(), 0);
	system_.on_poll = [&](int poll) {
		if (poll == 3) {
			holder.reset();
		}
	};
	const FileLock lock(Path(), 1);
	EXPECT_EQ(system_.polls, 3);
}

TEST_F(FileLockTest, TriesEvery100MillisecondsUntilTheTimeIsUp) {
	const FileLock holder(Path(), 0);
	EXPECT_EQ(Failure(1), "Fail to lock " + Path());
	EXPECT_EQ(system_.polls, 10);
	EXPECT_EQ(system_.Ahead(), std::chrono::seconds(1));
}

TEST_F(FileLockTest, WaitsForEverWhenAskedFor) {
	auto holder = std::make_unique<FileLock>(Path(), 0);
	system_.on_poll = [&](int) { holder.reset(); };
	EXPECT_NO_THROW(FileLock(Path(), std::numeric_limits<unsigned long>::max()));
	EXPECT_EQ(system_.polls, 1);
}

TEST_F(FileLockTest, DoesNotAskWhyALockFailed) {
	system_.Fail("flock", EINTR, 2);
	const FileLock lock(Path(), 1);
	EXPECT_EQ(system_.polls, 2);
}

TEST_F(FileLockTest, TellsOfAcquiringAndReleasing) {
	const test::SyslogCapture log;
	{ const FileLock lock(Path(), 0); }
	EXPECT_THAT(test::Lines(log), ElementsAre(Line{LOG_INFO, "file_lock.cpp", "Acquire lock on file: " + Path()},
	                                  Line{LOG_INFO, "file_lock.cpp", "Release lock on file: " + Path()}));
}

TEST_F(FileLockTest, ClosesTheFileEvenWhenUnlockingFails) {
	const test::SyslogCapture log;
	{
		const FileLock lock(Path(), 0);
		system_.Fail("flock", EBADF);
	}
	EXPECT_THAT(test::Lines(log), ElementsAre(Line{LOG_INFO, "file_lock.cpp", "Acquire lock on file: " + Path()},
	                                  Line{LOG_ERR, "file_lock.cpp", "Fail to unlock " + Path()},
	                                  Line{LOG_INFO, "file_lock.cpp", "Release lock on file: " + Path()}));
	EXPECT_NO_THROW(FileLock(Path(), 0));
}

TEST_F(FileLockTest, SaysWhyADirectoryCannotBeMade) {
	test::WriteFile(directory_ / "run", "in the way");
	EXPECT_THAT(Failure(0), AllOf(StartsWith("Fail to create dir "), HasSubstr(directory_ / "run")));
}

TEST_F(FileLockTest, NamesTheFileThatCannotBeOpened) {
	fs::create_directories(fs::path(Path()).parent_path());
	fs::create_symlink(Path(), Path());
	EXPECT_EQ(Failure(0), "Fail open lock file " + Path());
}

TEST_F(FileLockTest, IsNotInheritedByPrograms) {
	const FileLock lock(Path(), 0);
	ASSERT_THAT(OpenDescriptors(Path()), SizeIs(1));
	EXPECT_EQ(fcntl(OpenDescriptors(Path()).front(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(FileLockTest, CannotBeCopied) {
	EXPECT_FALSE(std::is_copy_constructible_v<FileLock>);
	EXPECT_FALSE(std::is_copy_assignable_v<FileLock>);
}

} // namespace
} // namespace tarn::dataupdate
