#include "dataupdate/internal/linked_tree.h"
#include "fake_system.h"
#include "library_test.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <system_error>
#include <thread>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

/** An access list that directories hand down: all for owner and group, nothing for others. */
constexpr std::array<unsigned char, 28> kDefaultList = {2, 0, 0, 0, 1, 0, 7, 0, 0xff, 0xff, 0xff, 0xff, 4, 0, 7, 0,
    0xff, 0xff, 0xff, 0xff, 0x20, 0, 0, 0, 0xff, 0xff, 0xff, 0xff};
constexpr char kDefaultListName[] = "system.posix_acl_default";

struct stat StatusOf(const std::string& path) {
	struct stat status {};
	EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
	return status;
}

class LinkedTreeTest : public testing::Test {
protected:
	LinkedTreeTest() {
		WriteFile(Original("file"), "content");
		WriteFile(Original("sub/deep/file"), "deep");
		fs::create_directory(Original("empty"));
	}

	std::string Original(const std::string& name) const { return directory_ / ("original/" + name); }
	std::string Copy(const std::string& name) const { return directory_ / ("copy/" + name); }
	/** Until a change gets another time than the last one. */
	static void LetTimePass() { std::this_thread::sleep_for(std::chrono::milliseconds(40)); }
	LinkedTree Made(const std::string& replaced = "") const {
		LetTimePass();
		return {directory_ / "original", directory_ / "copy",
		    [&replaced](const std::string& name) { return name == replaced; }};
	}
	std::error_code Failure(const std::string& replaced = "") const {
		try {
			Made(replaced);
		} catch (const std::system_error& error) {
			return error.code();
		}
		return {};
	}
	static std::error_code Code(int error) { return {error, std::system_category()}; }

	test::TemporaryDirectory directory_;
	test::FakeSystem system_;
};

TEST_F(LinkedTreeTest, GivesEveryFileASecondName) {
	fs::create_symlink("nowhere", Original("sub/link"));
	ASSERT_EQ(mkfifo(Original("fifo").c_str(), 0600), 0);
	Made();
	EXPECT_THAT(EntriesBelow(Copy("")),
	    UnorderedElementsAre("file", "fifo", "empty", "sub", "sub/link", "sub/deep", "sub/deep/file"));
	for (const char* name : {"file", "fifo", "sub/link", "sub/deep/file"}) {
		EXPECT_EQ(StatusOf(Copy(name)).st_ino, StatusOf(Original(name)).st_ino) << name;
	}
	for (const char* name : {"", "empty", "sub", "sub/deep"}) {
		EXPECT_NE(StatusOf(Copy(name)).st_ino, StatusOf(Original(name)).st_ino) << name;
	}
}

TEST_F(LinkedTreeTest, LeavesOutWhatIsReplaced) {
	Made("sub/deep/file");
	EXPECT_THAT(EntriesBelow(Copy("")), UnorderedElementsAre("file", "empty", "sub", "sub/deep"));
}

TEST_F(LinkedTreeTest, GivesDirectoriesModeOwnerAndTimesOfTheOriginals) {
	const std::string original = Original("sub/deep");
	ASSERT_EQ(chmod(original.c_str(), 03751), 0);
	if (geteuid() == 0 && chown(original.c_str(), 0, 1) == 0) {
		ASSERT_EQ(chmod(original.c_str(), 03751), 0);
	}
	const std::array<timespec, 2> times = {timespec{1000, 1}, timespec{2000, 2}};
	for (const char* name : {"sub/deep", "sub", ""}) {
		ASSERT_EQ(utimensat(AT_FDCWD, Original(name).c_str(), times.data(), 0), 0);
	}
	Made();
	for (const char* name : {"sub/deep", "sub", ""}) {
		const struct stat before = StatusOf(Original(name));
		const struct stat status = StatusOf(Copy(name));
		EXPECT_EQ(status.st_mode, before.st_mode);
		EXPECT_EQ(status.st_uid, before.st_uid);
		EXPECT_EQ(status.st_gid, before.st_gid);
		EXPECT_EQ(status.st_mtim.tv_sec, 2000);
		EXPECT_EQ(status.st_mtim.tv_nsec, 2);
	}
}

TEST_F(LinkedTreeTest, GivesDirectoriesTheirExtendedAttributes) {
	if (setxattr(Original("sub").c_str(), "user.note", "text", 4, 0) != 0) {
		GTEST_SKIP() << "the file system keeps none";
	}
	Made();
	std::array<char, 16> value{};
	EXPECT_EQ(getxattr(Copy("sub").c_str(), "user.note", value.data(), value.size()), 4);
	EXPECT_STREQ(value.data(), "text");
}

TEST_F(LinkedTreeTest, TakesAwayWhatTheDirectoryAboveTheCopyHandsDown) {
	const std::string above = directory_ / "";
	if (setxattr(above.c_str(), kDefaultListName, kDefaultList.data(), kDefaultList.size(), 0) != 0) {
		GTEST_SKIP() << "the file system keeps no access lists";
	}
	Made();
	for (const char* name : {"", "sub", "sub/deep"}) {
		EXPECT_EQ(getxattr(Copy(name).c_str(), kDefaultListName, nullptr, 0), -1) << name;
		EXPECT_EQ(StatusOf(Copy(name)).st_mode, StatusOf(Original(name)).st_mode) << name;
	}
}

TEST_F(LinkedTreeTest, KeepsTheAccessListThatADirectoryHandsDown) {
	if (setxattr(Original("sub").c_str(), kDefaultListName, kDefaultList.data(), kDefaultList.size(), 0) != 0) {
		GTEST_SKIP() << "the file system keeps no access lists";
	}
	Made();
	EXPECT_GT(getxattr(Copy("sub").c_str(), kDefaultListName, nullptr, 0), 0);
	EXPECT_EQ(getxattr(Copy("sub/deep").c_str(), kDefaultListName, nullptr, 0), -1) << "it had none before";
}

TEST_F(LinkedTreeTest, RefusesOtherFlagsThanANewDirectoryHas) {
	constexpr int kIndexed = 0x1000; // How the file system stores it.
	const ino_t original = StatusOf(Original("sub")).st_ino;
	int flags = kIndexed;
	system_.flags = [&](int file) {
		struct stat status {};
		return fstat(file, &status) == 0 && status.st_ino == original ? flags : 0;
	};
	EXPECT_EQ(Failure(), std::error_code());
	fs::remove_all(Copy(""));
	flags = FS_NOATIME_FL;
	EXPECT_EQ(Failure(), Code(EOPNOTSUPP));
}

TEST_F(LinkedTreeTest, FailsWhereASecondNameIsRefused) {
	system_.Fail("linkat", EMLINK, 1, 1);
	EXPECT_EQ(Failure(), Code(EMLINK));
}

TEST_F(LinkedTreeTest, FailsWhenADirectoryCannotBeRead) {
	system_.Fail("readdir", EIO, 1, 2);
	EXPECT_EQ(Failure(), Code(EIO));
}

TEST_F(LinkedTreeTest, FailsWhereACopyLiesAlready) {
	fs::create_directory(directory_ / "copy");
	EXPECT_EQ(Failure(), Code(EEXIST));
}

TEST_F(LinkedTreeTest, FollowsNoLinkInTheOriginalsPlace) {
	fs::create_directory_symlink(directory_ / "original", directory_ / "link");
	LetTimePass();
	EXPECT_THROW(LinkedTree(directory_ / "link", directory_ / "copy", [](const std::string&) { return false; }),
	    std::system_error);
}

TEST_F(LinkedTreeTest, LeavesADirectoryAloneInWhichSomethingIsMounted) {
	if (mount("tmpfs", Original("empty").c_str(), "tmpfs", 0, nullptr) != 0) {
		GTEST_SKIP() << "nothing can be mounted here";
	}
	EXPECT_EQ(Failure(), Code(EBUSY));
	ASSERT_EQ(umount(Original("empty").c_str()), 0);
	fs::remove_all(Copy(""));
	// The same file system.
	ASSERT_EQ(mount(Original("sub/deep").c_str(), Original("empty").c_str(), nullptr, MS_BIND, nullptr), 0);
	EXPECT_EQ(Failure(), Code(EBUSY));
	ASSERT_EQ(umount(Original("empty").c_str()), 0);
	fs::remove_all(Copy(""));
	ASSERT_EQ(mount(Original("sub/deep/file").c_str(), Original("file").c_str(), nullptr, MS_BIND, nullptr), 0);
	EXPECT_EQ(Failure(), Code(EXDEV));
	fs::remove_all(Copy(""));
	EXPECT_EQ(Failure("file"), Code(EBUSY));
	ASSERT_EQ(umount(Original("file").c_str()), 0);
}

TEST_F(LinkedTreeTest, FailsWhereAChangeToComeMightGetTheTimeOfTheLastOne) {
	LetTimePass();
	WriteFile(Original("sub/deep/new"), "");
	EXPECT_THROW(LinkedTree(directory_ / "original", directory_ / "copy", [](const std::string&) { return false; }),
	    std::system_error);
}

TEST_F(LinkedTreeTest, IsCurrentWhileFilesAreOnlyWritten) {
	const LinkedTree tree = Made();
	LetTimePass();
	WriteFile(Original("sub/deep/file"), "written");
	EXPECT_TRUE(tree.IsCurrent());
	EXPECT_EQ(ReadFile(Copy("sub/deep/file")), "written");
}

TEST_F(LinkedTreeTest, IsNotCurrentAfterAnyChangeOfNamesOrDirectories) {
	const std::vector<std::function<void()>> changes = {
	    [&] { WriteFile(Original("sub/deep/new"), ""); },
	    [&] { fs::remove(Original("sub/deep/file")); },
	    [&] { fs::rename(Original("sub/deep/file"), Original("sub/deep/other")); },
	    [&] { fs::rename(Original("file"), Original("sub/deep/file")); },
	    [&] { fs::remove(Original("empty")); },
	    [&] { fs::create_directory(Original("empty/new")); },
	    [&] { fs::permissions(Original("sub/deep"), fs::perms(0700)); },
	    [&] { fs::remove_all(Original("")); },
	    [&] {
		    fs::rename(Original("sub"), directory_ / "elsewhere");
		    fs::create_directory_symlink(directory_ / "elsewhere", Original("sub"));
	    },
	};
	for (std::size_t number = 0; number < changes.size(); ++number) {
		const LinkedTree tree = Made();
		EXPECT_TRUE(tree.IsCurrent()) << number;
		changes[number]();
		EXPECT_FALSE(tree.IsCurrent()) << number;
		fs::remove_all(directory_ / "original");
		fs::remove_all(directory_ / "copy");
		fs::remove_all(directory_ / "elsewhere");
		WriteFile(Original("file"), "content");
		WriteFile(Original("sub/deep/file"), "deep");
		fs::create_directory(Original("empty"));
	}
}

} // namespace
} // namespace tarn::dataupdate
