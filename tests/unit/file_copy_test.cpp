#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/file_copy.h"
#include "dataupdate/utils.h"
#include "fake_system.h"
#include "library_test.h"

#include <boost/filesystem/exception.hpp>
#include <gmock/gmock.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <future>
#include <string>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

class CopyFileTest : public testing::Test {
protected:
	std::string Source() const { return directory_ / "src"; }
	std::string Target() const { return directory_ / "dst"; }
	std::string Failure() const {
		return MessageOf([this] { IOUtils().CopyFile(Source(), Target()); });
	}

	test::TemporaryDirectory directory_;
	test::FakeSystem system_;
	const std::string content_ = std::string(300000, 'a') + "end";
};

TEST_F(CopyFileTest, CopiesAFileWholeWithItsPermissions) {
	WriteFile(Source(), content_);
	ASSERT_EQ(chmod(Source().c_str(), 0751), 0);
	const std::string target = directory_ / "new/sub/dst";
	IOUtils().CopyFile(Source(), target);
	EXPECT_EQ(ReadFile(target), content_);
	EXPECT_EQ(fs::status(target).permissions(), fs::perms(0751));
	EXPECT_EQ(ReadFile(Source()), content_);
}

TEST_F(CopyFileTest, ReplacesAnExistingFile) {
	WriteFile(Source(), "new");
	WriteFile(Target(), content_);
	IOUtils().CopyFile(Source(), Target());
	EXPECT_EQ(ReadFile(Target()), "new");
}

TEST_F(CopyFileTest, ReplacesALinkInsteadOfWritingThroughIt) {
	WriteFile(Source(), "new");
	WriteFile(directory_ / "victim", "old");
	fs::create_symlink("victim", Target());
	IOUtils().CopyFile(Source(), Target());
	EXPECT_EQ(ReadFile(directory_ / "victim"), "old");
	EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(Target())));
}

TEST_F(CopyFileTest, CopiesALinkAsALink) {
	fs::create_symlink("somewhere/else", Source());
	IOUtils().CopyFile(Source(), Target());
	EXPECT_EQ(fs::read_symlink(Target()), "somewhere/else");
}

TEST_F(CopyFileTest, CopiesADirectoryAsAnEmptyOne) {
	WriteFile(Source() + "/inside", "x");
	IOUtils().CopyFile(Source(), Target());
	EXPECT_TRUE(fs::is_directory(Target()));
	EXPECT_TRUE(fs::is_empty(Target()));
}

TEST_F(CopyFileTest, KeepsADirectoryThatIsNotEmpty) {
	WriteFile(Source(), "new");
	WriteFile(Target() + "/inside", "x");
	EXPECT_THAT(Failure(), StartsWith("Fail to copy from " + Source() + " to " + Target() + ": "));
	EXPECT_EQ(ReadFile(Target() + "/inside"), "x");
}

TEST_F(CopyFileTest, SaysWhatIsMissing) {
	EXPECT_THAT(Failure(), AllOf(StartsWith("Fail to copy from " + Source() + " to " + Target() + ": "),
	                           HasSubstr("No such file or directory")));
	EXPECT_FALSE(fs::exists(Target()));
}

TEST_F(CopyFileTest, RefusesAFifoInsteadOfWaitingForItsWriter) {
	ASSERT_EQ(mkfifo(Source().c_str(), 0600), 0);
	EXPECT_THAT(Failure(), HasSubstr("not supported"));
	EXPECT_FALSE(fs::exists(Target()));
}

TEST_F(CopyFileTest, NeedsADirectoryToWriteIn) {
	WriteFile(Source(), "new");
	WriteFile(directory_ / "file", "");
	EXPECT_THAT(MessageOf([&] { IOUtils().CopyFile(Source(), directory_ / "file/dst"); }),
	    StartsWith("Fail to copy from " + Source()));
}

TEST_F(CopyFileTest, SharesTheContentWhereTheFileSystemCan) {
	WriteFile(Source(), content_);
	int shared = 0;
	system_.clone = [&](int to, int from) {
		++shared;
		EXPECT_EQ(pwrite(to, content_.data(), content_.size(), 0), static_cast<ssize_t>(content_.size()));
		EXPECT_GE(from, 0);
		return true;
	};
	system_.Fail("copy_file_range", EIO);
	const ActivityScope activity(Phase::kApply, "");
	IOUtils().CopyFile(Source(), Target());
	EXPECT_EQ(shared, 1);
	EXPECT_EQ(ReadFile(Target()), content_);
	EXPECT_EQ(CurrentActivity().bytes, content_.size());
}

TEST_F(CopyFileTest, CopiesThroughMemoryWhereTheKernelCannot) {
	WriteFile(Source(), content_);
	for (const int error : {EXDEV, EOPNOTSUPP, ENOSYS, EINVAL, EPERM}) {
		system_.Fail("copy_file_range", error);
		const ActivityScope activity(Phase::kApply, "");
		IOUtils().CopyFile(Source(), Target());
		EXPECT_EQ(ReadFile(Target()), content_);
		EXPECT_EQ(CurrentActivity().bytes, content_.size());
	}
}

TEST_F(CopyFileTest, GoesOnAfterAnInterruption) {
	WriteFile(Source(), content_);
	system_.Fail("copy_file_range", EINTR);
	IOUtils().CopyFile(Source(), Target());
	EXPECT_EQ(ReadFile(Target()), content_);
	system_.Fail("copy_file_range", EXDEV);
	system_.Fail("read", EINTR);
	system_.Fail("write", EINTR, 1, 1);
	IOUtils().CopyFile(Source(), Target());
	EXPECT_EQ(ReadFile(Target()), content_);
}

struct CopyFault {
	const char* call;
	int error;
	const char* text;
};

class CopyFaultTest : public CopyFileTest, public testing::WithParamInterface<CopyFault> {};

TEST_P(CopyFaultTest, LeavesNoHalfMadeCopy) {
	WriteFile(Source(), content_);
	const std::string call = GetParam().call;
	if (call == "read" || call == "write") {
		system_.Fail("copy_file_range", EXDEV);
	}
	system_.Fail(call, GetParam().error);
	EXPECT_THAT(Failure(),
	    AllOf(StartsWith("Fail to copy from " + Source() + " to " + Target() + ": "), HasSubstr(GetParam().text)));
	EXPECT_FALSE(fs::exists(Target()));
}

INSTANTIATE_TEST_SUITE_P(Calls, CopyFaultTest,
    testing::Values(CopyFault{"copy_file_range", ENOSPC, "No space left on device"},
        CopyFault{"read", EIO, "Input/output error"}, CopyFault{"write", ENOSPC, "No space left on device"},
        CopyFault{"fchmod", EPERM, "Operation not permitted"}),
    [](const auto& fault) { return std::string(fault.param.call); });

class InstallRegularFileTest : public CopyFileTest {
protected:
	ino_t Inode(const std::string& path) const {
		struct stat status {};
		EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
		return status.st_ino;
	}
};

TEST_F(InstallRegularFileTest, GivesAFileASecondName) {
	WriteFile(Source(), content_);
	const ActivityScope activity(Phase::kApply, "");
	InstallRegularFile(Source(), Target());
	EXPECT_EQ(Inode(Source()), Inode(Target()));
	EXPECT_EQ(CurrentActivity().bytes, content_.size());
}

TEST_F(InstallRegularFileTest, CopiesWhereASecondNameCannotBe) {
	WriteFile(Source(), content_);
	for (const int error : {EXDEV, EMLINK, EPERM, EOPNOTSUPP}) {
		system_.Fail("linkat", error);
		InstallRegularFile(Source(), Target());
		EXPECT_EQ(ReadFile(Target()), content_) << error;
		EXPECT_NE(Inode(Source()), Inode(Target()));
		fs::remove(Target());
	}
}

TEST_F(InstallRegularFileTest, InstallsTheFileThatALinkLeadsTo) {
	WriteFile(directory_ / "real", content_);
	fs::create_symlink("real", Source());
	InstallRegularFile(Source(), Target());
	EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(Target())));
	EXPECT_EQ(ReadFile(Target()), content_);
}

TEST_F(InstallRegularFileTest, NeverReplacesAFile) {
	WriteFile(Source(), "new");
	WriteFile(Target(), "old");
	EXPECT_THROW(InstallRegularFile(Source(), Target()), boost::filesystem::filesystem_error);
	system_.Fail("linkat", EXDEV);
	EXPECT_THROW(InstallRegularFile(Source(), Target()), boost::filesystem::filesystem_error);
	EXPECT_EQ(ReadFile(Target()), "old");
}

class SyncFileSystemTest : public CopyFileTest {};

TEST_F(SyncFileSystemTest, IsLeftOutForAnInstallDirectoryThatIsNotThere) {
	WriteFile(directory_ / "file", "");
	system_.Fail("syncfs", EIO, 1);
	EXPECT_NO_THROW(SyncInstalled(directory_ / "none"));
	EXPECT_NO_THROW(SyncInstalled(directory_ / "file/none"));
	EXPECT_EQ(
	    MessageOf([&] { SyncInstalled(directory_ / ""); }), "Fail to sync " + directory_ / "" + ": Input/output error");
}

TEST_F(SyncFileSystemTest, BesideTheCallerTellsInTheEndWhyItFailed) {
	WriteFile(directory_ / "file", "");
	system_.Fail("syncfs", EIO);
	std::future<void> synced = BeginToSyncInstalled(directory_ / "");
	EXPECT_EQ(MessageOf([&] { synced.get(); }), "Fail to sync " + directory_ / "" + ": Input/output error");
	EXPECT_NO_THROW(BeginToSyncInstalled(directory_ / "none").get());
}

TEST_F(SyncFileSystemTest, NamesThePathThatCannotBeSynced) {
	EXPECT_NO_THROW(SyncFileSystem(directory_ / ""));
	system_.Fail("syncfs", EIO);
	EXPECT_EQ(MessageOf([&] { SyncFileSystem(directory_ / ""); }),
	    "Fail to sync " + directory_ / "" + ": Input/output error");
	EXPECT_EQ(MessageOf([&] { SyncFileSystem(directory_ / "none"); }),
	    "Fail to sync " + directory_ / "none" + ": No such file or directory");
}

} // namespace
} // namespace tarn::dataupdate
