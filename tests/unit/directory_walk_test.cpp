#include "base/unique_fd.h"
#include "dataupdate/utils.h"
#include "fake_system.h"
#include "library_test.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

// No component of a path may be longer than 255 bytes, so every operation on it fails.
const std::string kTooLong = std::string(300, 'x');

class DirectoryWalkTest : public testing::Test {
protected:
	test::TemporaryDirectory directory_;
	test::FakeSystem system_;
	IOUtils io_;
};

std::vector<std::string> Walk(const IOUtils& io, const std::string& directory, bool recursive) {
	std::vector<std::string> paths;
	io.IterateDirectory(
	    directory, [&paths](const std::string& path) { paths.push_back(path); }, recursive);
	return paths;
}

/** Makes directories one below the other, each with a file, beyond the longest path that can be named. */
void MakeDeepTree(const std::string& root, int levels, const std::string& name = "d") {
	fs::create_directory(root);
	UniqueFd current(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	for (int level = 0; level < levels; ++level) {
		UniqueFd(openat(current.Get(), "f", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
		ASSERT_EQ(mkdirat(current.Get(), name.c_str(), 0700), 0);
		current = UniqueFd(openat(current.Get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
		ASSERT_TRUE(current);
	}
}

/** Leaves this process few descriptors more than it has open. */
class FewDescriptors {
public:
	FewDescriptors() {
		constexpr int kMore = 8;
		getrlimit(RLIMIT_NOFILE, &before_);
		const UniqueFd next(open("/dev/null", O_RDONLY | O_CLOEXEC));
		const rlimit few{static_cast<rlim_t>(next.Get()) + kMore, before_.rlim_max};
		setrlimit(RLIMIT_NOFILE, &few);
	}
	FewDescriptors(const FewDescriptors&) = delete;
	FewDescriptors& operator=(const FewDescriptors&) = delete;
	~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }

private:
	rlimit before_{};
};

using IterateDirectoryTest = DirectoryWalkTest;

TEST_F(IterateDirectoryTest, ReportsEveryEntryOfOneDirectory) {
	WriteFile(directory_ / "t/f", "");
	WriteFile(directory_ / "t/sub/g", "");
	fs::create_symlink("nowhere", directory_ / "t/link");
	EXPECT_THAT(Walk(io_, directory_ / "t", false),
	    UnorderedElementsAre(directory_ / "t/f", directory_ / "t/sub", directory_ / "t/link"));
}

TEST_F(IterateDirectoryTest, ReportsADirectoryAfterItsContents) {
	WriteFile(directory_ / "t/sub/deep/g", "");
	EXPECT_THAT(Walk(io_, directory_ / "t", true),
	    ElementsAre(directory_ / "t/sub/deep/g", directory_ / "t/sub/deep", directory_ / "t/sub"));
}

TEST_F(IterateDirectoryTest, DoesNotFollowLinks) {
	WriteFile(directory_ / "t/f", "");
	fs::create_directory_symlink("..", directory_ / "t/up");
	EXPECT_THAT(Walk(io_, directory_ / "t", true), UnorderedElementsAre(directory_ / "t/f", directory_ / "t/up"));
}

TEST_F(IterateDirectoryTest, ReportsTheSamePathsForATrailingSlash) {
	WriteFile(directory_ / "t/f", "");
	EXPECT_EQ(Walk(io_, directory_ / "t/", true), Walk(io_, directory_ / "t", true));
}

TEST_F(IterateDirectoryTest, NeedsNoTypesInDirectoryEntries) {
	WriteFile(directory_ / "t/sub/f", "");
	fs::create_directory_symlink("sub", directory_ / "t/link");
	const auto known = Walk(io_, directory_ / "t", true);
	EXPECT_THAT(known, testing::SizeIs(3));
	system_.hide_entry_types = true;
	EXPECT_EQ(Walk(io_, directory_ / "t", true), known);
}

TEST_F(IterateDirectoryTest, SaysWhyItCannotBegin) {
	WriteFile(directory_ / "f", "");
	EXPECT_EQ(
	    MessageOf([&] { Walk(io_, directory_ / "none", true); }), "failed to read file stat: " + directory_ / "none");
	EXPECT_EQ(MessageOf([&] { Walk(io_, directory_ / "f", true); }), "not a directory: " + directory_ / "f");
	EXPECT_EQ(MessageOf([&] { Walk(io_, "", true); }), "failed to read file stat: ");
}

TEST_F(IterateDirectoryTest, PassesOnTheSystemsTextAlone) {
	system_.Fail("opendir", EACCES);
	EXPECT_EQ(MessageOf([&] { Walk(io_, directory_ / "", true); }), "Permission denied");
	system_.Fail("readdir", EIO, 1, 1);
	EXPECT_EQ(MessageOf([&] { Walk(io_, directory_ / "", true); }), "Input/output error");
}

TEST_F(IterateDirectoryTest, ClosesTheDirectoryWhenTheCallbackThrows) {
	WriteFile(directory_ / "t/f", "");
	const auto descriptors = [&] { return Walk(io_, "/proc/self/fd", false).size(); };
	const std::size_t before = descriptors();
	const auto fail = [](const std::string&) { throw std::runtime_error("stop"); };
	EXPECT_THROW(io_.IterateDirectory(directory_ / "t", fail, true), std::runtime_error);
	EXPECT_EQ(descriptors(), before);
}

TEST_F(IterateDirectoryTest, WalksDeeperThanThereAreDescriptors) {
	MakeDeepTree(directory_ / "t", 1100);
	const FewDescriptors few;
	const std::vector<std::string> paths = Walk(io_, directory_ / "t", true);
	ASSERT_THAT(paths, testing::SizeIs(2200));
	std::vector<std::size_t> lengths; // of the directories: each comes after the one in it
	for (const std::string& path : paths) {
		if (path.back() == 'd') {
			lengths.push_back(path.size());
		}
	}
	EXPECT_THAT(lengths, testing::SizeIs(1100));
	EXPECT_TRUE(std::is_sorted(lengths.rbegin(), lengths.rend()));
	EXPECT_EQ(io_.GetSize(directory_ / "t"), 0U);
	io_.RmRf(directory_ / "t");
}

TEST_F(IterateDirectoryTest, ReportsWhatItReadBeforeAnError) {
	WriteFile(directory_ / "t/f", "");
	WriteFile(directory_ / "t/g", "");
	system_.Fail("readdir", EIO, 1, 4); // Behind all entries.
	std::vector<std::string> paths;
	const auto note = [&](const std::string& path) { paths.push_back(path); };
	EXPECT_EQ(MessageOf([&] { io_.IterateDirectory(directory_ / "t", note, false); }), "Input/output error");
	EXPECT_THAT(paths, UnorderedElementsAre(directory_ / "t/f", directory_ / "t/g"));
}

TEST_F(IterateDirectoryTest, LetsTheCallbackRemoveWhatItIsToldOf) {
	WriteFile(directory_ / "t/a/b/f", "");
	WriteFile(directory_ / "t/g", "");
	io_.IterateDirectory(
	    directory_ / "t", [](const std::string& path) { fs::remove(path); }, true);
	EXPECT_TRUE(fs::is_empty(directory_ / "t"));
}

using RmRfTest = DirectoryWalkTest;

TEST_F(RmRfTest, RemovesATreeAndForgivesAMissingOne) {
	WriteFile(directory_ / "t/sub/f", "x");
	WriteFile(directory_ / "kept", "x");
	fs::create_symlink(directory_ / "kept", directory_ / "t/link");
	io_.RmRf(directory_ / "t");
	EXPECT_FALSE(fs::exists(directory_ / "t"));
	EXPECT_TRUE(fs::exists(directory_ / "kept"));
	EXPECT_NO_THROW(io_.RmRf(directory_ / "t"));
}

TEST_F(RmRfTest, TakesWhatWouldBeBelowAFileForMissing) {
	WriteFile(directory_ / "file", "x");
	EXPECT_NO_THROW(io_.RmRf(directory_ / "file/child"));
	EXPECT_NO_THROW(io_.RmRf(directory_ / "file/child/deep"));
	EXPECT_EQ(ReadFile(directory_ / "file"), "x");
}

TEST_F(RmRfTest, NamesWhatCannotBeRemoved) {
	EXPECT_EQ(MessageOf([&] { io_.RmRf(directory_ / kTooLong); }), "Fail to remove all: " + directory_ / kTooLong);
}

TEST_F(RmRfTest, RemovesATreeDeeperThanThereAreDescriptorsOrNames) {
	for (const std::string& name : {std::string("d"), std::string(200, 'd')}) { // 5 KiB and 500 KiB of path
		MakeDeepTree(directory_ / "t", 2500, name);
		fs::create_directory_symlink(directory_ / "kept", directory_ / "t/link");
		WriteFile(directory_ / "kept/f", "");
		const FewDescriptors few;
		EXPECT_NO_THROW(io_.RmRf(directory_ / "t"));
		EXPECT_FALSE(fs::exists(directory_ / "t"));
		EXPECT_TRUE(fs::exists(directory_ / "kept/f"));
	}
}

TEST_F(RmRfTest, RemovesAFileALinkAndABroadTree) {
	WriteFile(directory_ / "f", "");
	fs::create_directory_symlink(".", directory_ / "link");
	for (const std::string name : {"a/b/c/1", "a/b/2", "a/d/e/3", "a/4", "g/h/5"}) {
		WriteFile(directory_ / "t/" + name, "");
	}
	for (const std::string name : {"f", "link", "t"}) {
		io_.RmRf(directory_ / name);
	}
	EXPECT_TRUE(fs::is_empty(directory_.Path()));
}

TEST_F(RmRfTest, NeedsNoTypesInDirectoryEntries) {
	WriteFile(directory_ / "t/sub/f", "");
	system_.hide_entry_types = true;
	io_.RmRf(directory_ / "t");
	EXPECT_FALSE(fs::exists(directory_ / "t"));
}

TEST_F(RmRfTest, FailsWhenADirectoryCannotBeRead) {
	WriteFile(directory_ / "t/sub/f", "");
	system_.Fail("readdir", EIO, 1, 1);
	EXPECT_EQ(MessageOf([&] { io_.RmRf(directory_ / "t"); }), "Fail to remove all: " + directory_ / "t");
	EXPECT_TRUE(fs::exists(directory_ / "t"));
}

} // namespace
} // namespace tarn::dataupdate
