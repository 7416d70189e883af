#include "expect_error.h"
#include "fake_platform.h"
#include "fake_system.h"
#include "log_lines.h"
#include "temporary_directory.h"

#include <dataupdate/utils.h>

#include <gmock/gmock.h>

#include <base/unique_fd.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
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

using test::ErrorOf;
using test::Line;
using test::MessageOf;
using test::ReadFile;
using test::WriteFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::UnorderedElementsAre;

// No component of a path may be longer than 255 bytes, so every operation on it fails.
const std::string kTooLong = std::string(300, 'x');

class UtilsTest : public testing::Test {
protected:
	test::TemporaryDirectory directory_;
	test::FakePlatform platform_;
	test::FakeSystem system_;
	IOUtils io_;
};

std::vector<std::string> Walk(const IOUtils& io, const std::string& directory, bool recursive) {
	std::vector<std::string> paths;
	io.IterateDirectory(
	    directory, [&paths](const std::string& path) { paths.push_back(path); }, recursive);
	return paths;
}

using ReadJsonTest = UtilsTest;

TEST_F(ReadJsonTest, ReadsAWholeDocumentWithComments) {
	WriteFile(directory_ / "f", "// first\n{\"a\": [1, 2]} // last\n");
	EXPECT_EQ(io_.ReadJson(directory_ / "f")["a"][1].asInt(), 2);
}

TEST_F(ReadJsonTest, TellsAMissingFileByItsCode) {
	const UpdateError error = ErrorOf([&] { io_.ReadJson(directory_ / "none"); });
	EXPECT_EQ(error.what(), "File not exist: " + directory_ / "none");
	EXPECT_EQ(error.code(), 1);
}

TEST_F(ReadJsonTest, TakesAFileWhoseStatusCannotBeHadForAMissingOne) {
	EXPECT_EQ(ErrorOf([&] { io_.ReadJson(directory_ / kTooLong); }).code(), 1);
}

TEST_F(ReadJsonTest, SaysThatAFileCannotBeRead) {
	WriteFile(directory_ / "f", "{}");
	rlimit limit{};
	ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
	const rlimit none{0, limit.rlim_max};
	EXPECT_EQ(io_.ReadJson(directory_ / "f"), Json::Value(Json::objectValue));
	ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
	// Not the first call of its kind: a sanitizer looks types up once, through descriptors of its own.
	const UpdateError error = ErrorOf([&] { io_.ReadJson(directory_ / "f"); });
	ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
	EXPECT_EQ(error.what(), "Fail to read: " + directory_ / "f");
	EXPECT_EQ(error.code(), 0);
}

TEST_F(ReadJsonTest, SaysThatAFileHoldsNoJson) {
	for (const std::string& content : {std::string("{\"a\": "), std::string("<html></html>"), std::string()}) {
		WriteFile(directory_ / "f", content);
		const UpdateError error = ErrorOf([&] { io_.ReadJson(directory_ / "f"); });
		EXPECT_EQ(error.what(), "Fail to decode: " + directory_ / "f") << content;
		EXPECT_EQ(error.code(), 0);
	}
	EXPECT_EQ(MessageOf([&] { io_.ReadJson(directory_ / ""); }), "Fail to decode: " + directory_ / "");
}

TEST_F(ReadJsonTest, SaysThatADocumentNested5000DeepCannotBeDecoded) {
	WriteFile(directory_ / "f", std::string(5000, '[') + std::string(5000, ']'));
	EXPECT_EQ(MessageOf([&] { io_.ReadJson(directory_ / "f"); }), "Fail to decode: " + directory_ / "f");
	WriteFile(directory_ / "f", std::string(500, '[') + std::string(500, ']'));
	EXPECT_TRUE(io_.ReadJson(directory_ / "f").isArray());
}

using WriteJsonTest = UtilsTest;

TEST_F(WriteJsonTest, IndentsWithTabsAndCreatesParents) {
	Json::Value value;
	value["a"]["b"] = "c";
	io_.WriteJson(directory_ / "x/y/f", value);
	EXPECT_THAT(ReadFile(directory_ / "x/y/f"), HasSubstr("\n\t\"a\" : \n\t{\n\t\t\"b\" : \"c\"\n\t}\n"));
	EXPECT_EQ(io_.ReadJson(directory_ / "x/y/f"), value);
}

TEST_F(WriteJsonTest, HasNoParentToMakeForABareName) {
	EXPECT_EQ(MessageOf([&] { io_.WriteJson("bare", 1); }), "Fail to create parent folder: bare");
	EXPECT_FALSE(fs::exists("bare"));
}

TEST_F(WriteJsonTest, WritesStraightIntoTheFile) {
	WriteFile(directory_ / "f", std::string(1000, 'x'));
	ASSERT_EQ(link((directory_ / "f").c_str(), (directory_ / "same").c_str()), 0);
	io_.WriteJson(directory_ / "f", 1);
	EXPECT_EQ(io_.ReadJson(directory_ / "same"), 1);
}

TEST_F(WriteJsonTest, NamesTheFileWhoseParentCannotBeMade) {
	WriteFile(directory_ / "file", "");
	const std::string path = directory_ / "file/sub/f";
	EXPECT_EQ(MessageOf([&] { io_.WriteJson(path, 1); }), "Fail to create parent folder: " + path);
}

TEST_F(WriteJsonTest, NamesTheFileThatCannotBeWritten) {
	fs::create_directory(directory_ / "taken");
	EXPECT_EQ(MessageOf([&] { io_.WriteJson(directory_ / "taken", 1); }), "Fail to write: " + directory_ / "taken");
}

using GetSizeTest = UtilsTest;

TEST_F(GetSizeTest, AddsTheRegularFilesOfATree) {
	WriteFile(directory_ / "t/a", "12345");
	WriteFile(directory_ / "t/sub/b", "123");
	fs::create_directory(directory_ / "t/empty");
	fs::create_symlink("a", directory_ / "t/link");
	fs::create_symlink("nowhere", directory_ / "t/dangling");
	EXPECT_EQ(io_.GetSize(directory_ / "t"), 13U); // A link counts as the file that it leads to.
	EXPECT_EQ(io_.GetSize(directory_ / "t/a"), 5U);
}

TEST_F(GetSizeTest, IsNothingForWhatHoldsNothing) {
	fs::create_directory(directory_ / "empty");
	ASSERT_EQ(mkfifo((directory_ / "fifo").c_str(), 0600), 0);
	EXPECT_EQ(io_.GetSize(directory_ / "missing"), 0U);
	EXPECT_EQ(io_.GetSize(directory_ / "empty"), 0U);
	EXPECT_EQ(io_.GetSize(directory_ / "fifo"), 0U);
}

TEST_F(GetSizeTest, NamesThePathThatCannotBeMeasured) {
	EXPECT_EQ(MessageOf([&] { io_.GetSize(directory_ / kTooLong); }), "Fail to get size on " + directory_ / kTooLong);
}

TEST_F(GetSizeTest, WalksThroughTheVirtualOperation) {
	class Double : public IOUtils {
	public:
		void IterateDirectory(const std::string&, const std::function<void(const std::string&)>& callback,
		    bool recursive) const override {
			EXPECT_TRUE(recursive);
			callback(file);
			callback(file);
		}
		std::string file;
	};
	WriteFile(directory_ / "f", "1234");
	Double io;
	io.file = directory_ / "f";
	EXPECT_EQ(io.GetSize(directory_ / ""), 8U);
}

using GetFsSizeTest = UtilsTest;

TEST_F(GetFsSizeTest, TellsTheAvailableSpaceAndThenTheCapacity) {
	system_.space = {5, 9};
	EXPECT_THAT(io_.GetFsSize(directory_ / ""), Pair(5U, 9U));
}

TEST_F(GetFsSizeTest, RefusesWhatIsNoDirectory) {
	WriteFile(directory_ / "f", "");
	for (const std::string& name : {std::string("f"), std::string("missing"), kTooLong}) {
		EXPECT_EQ(MessageOf([&] { io_.GetFsSize(directory_ / name); }), "Invalid filesystem to testing space");
	}
}

TEST_F(GetFsSizeTest, SaysThatAFileSystemDoesNotAnswer) {
	system_.space_works = false;
	EXPECT_EQ(MessageOf([&] { io_.GetFsSize(directory_ / ""); }), "Fail to get available space");
}

using FileCreateOverTest = UtilsTest;

TEST_F(FileCreateOverTest, IsStrictAboutTheLimit) {
	WriteFile(directory_ / "f", "");
	struct stat status {};
	ASSERT_EQ(stat((directory_ / "f").c_str(), &status), 0);
	system_.seconds = status.st_mtime;
	EXPECT_FALSE(io_.FileCreateOver(directory_ / "f", 0)); // Touched in the current second.
	system_.seconds = status.st_mtime + 3600;
	EXPECT_FALSE(io_.FileCreateOver(directory_ / "f", 3600));
	system_.seconds = status.st_mtime + 3601;
	EXPECT_TRUE(io_.FileCreateOver(directory_ / "f", 3600));
	system_.seconds = status.st_mtime - 10; // Modified in the future.
	EXPECT_FALSE(io_.FileCreateOver(directory_ / "f", 0));
}

TEST_F(FileCreateOverTest, NamesTheFileAndTheErrorNumber) {
	EXPECT_EQ(MessageOf([&] { io_.FileCreateOver(directory_ / "none", 1); }),
	    "Failed to get attribute of " + directory_ / "none" + ", errno=" + std::to_string(ENOENT));
}

using RmRfTest = UtilsTest;

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

using DownloadTest = UtilsTest;

TEST_F(DownloadTest, RunsWgetWithExactlyTheseArguments) {
	unsigned int seen = 0;
	platform_.execl = [&](const std::string&, unsigned int options, const test::FakePlatform::Arguments&) {
		seen = options;
		return 0;
	};
	const test::SyslogCapture log;
	io_.Download("/out file", "http://h/a b?c[d]=e");
	EXPECT_EQ(seen, 187U);
	EXPECT_THAT(platform_.events,
	    ElementsAre("user agent database 1024", "/usr/bin/wget -N http://h/a b?c[d]=e -O /out file -U agent/1.0 "
	                                            "--dns-timeout=8 --connect-timeout=15 --tries=3"));
	EXPECT_THAT(test::Lines(log), ElementsAre(Line{LOG_DEBUG, "utils.cpp", "Use agent/1.0 as user agent string"}));
}

TEST_F(DownloadTest, LeavesNoFileBehindWhenItFails) {
	for (const int result : {-1, 8}) {
		WriteFile(directory_ / "out", "old");
		platform_.execl = [result](const std::string&, unsigned int, const test::FakePlatform::Arguments&) {
			return result;
		};
		EXPECT_EQ(MessageOf([&] { io_.Download(directory_ / "out", "http://h/x"); }), "Fail to wget url: http://h/x");
		EXPECT_FALSE(fs::exists(directory_ / "out"));
	}
	EXPECT_EQ(MessageOf([&] { io_.Download(directory_ / "never", "u"); }), "Fail to wget url: u");
}

TEST_F(DownloadTest, RemovesNoDirectoryWhenItFails) {
	fs::create_directory(directory_ / "out");
	platform_.execl = [](const std::string&, unsigned int, const test::FakePlatform::Arguments&) { return 1; };
	EXPECT_ANY_THROW(io_.Download(directory_ / "out", "http://h/x"));
	EXPECT_TRUE(fs::is_directory(directory_ / "out"));
	EXPECT_EQ(MessageOf([&] { io_.Download("/dev/null/out", "u"); }), "Fail to wget url: u"); // Below a file.
}

TEST_F(DownloadTest, SucceedsAsWgetDoesWhenTheFileCannotBeExamined) {
	platform_.execl = [](const std::string&, unsigned int, const test::FakePlatform::Arguments&) { return 0; };
	EXPECT_NO_THROW(io_.Download(directory_ / kTooLong, "u"));
}

TEST_F(DownloadTest, NeverHandsWgetALinkThatItWouldTakeForAnOption) {
	WriteFile(directory_ / "out", "old");
	EXPECT_EQ(MessageOf([&] { io_.Download(directory_ / "out", "--post-file=/etc/shadow"); }),
	    "Fail to wget url: --post-file=/etc/shadow");
	EXPECT_EQ(platform_.CountEvents("/usr/bin/wget"), 0U);
	EXPECT_FALSE(fs::exists(directory_ / "out"));
}

TEST_F(DownloadTest, FailsBeforeWgetWithoutAUserAgent) {
	platform_.user_agent_result = -1;
	EXPECT_EQ(MessageOf([&] { io_.Download(directory_ / "out", "u"); }), "Fail to generate user agent string");
	EXPECT_EQ(platform_.CountEvents("/usr/bin/wget"), 0U);
}

using UserAgentTest = UtilsTest;

TEST_F(UserAgentTest, IsThePlatformsTextUpToItsEnd) {
	platform_.user_agent_result = 9; // A length counts as success as well.
	EXPECT_EQ(TarnGetUserAgent("database"), "agent/1.0");
	platform_.user_agent = std::string(2000, 'a');
	EXPECT_EQ(TarnGetUserAgent("database"), std::string(1024, 'a'));
}

TEST_F(UserAgentTest, IsAnErrorWhenThePlatformHasNone) {
	platform_.user_agent_result = -1;
	EXPECT_EQ(MessageOf([] { TarnGetUserAgent("database"); }), "Fail to generate user agent string");
}

using TarnMkdirTest = UtilsTest;

TEST_F(TarnMkdirTest, MakesADirectoryWithItsParents) {
	io_.TarnMkdir(directory_ / "a/b");
	EXPECT_TRUE(fs::is_directory(directory_ / "a/b"));
}

TEST_F(TarnMkdirTest, NamesTheDirectoryThatCannotBeMade) {
	platform_.mkdir_works = false;
	EXPECT_EQ(MessageOf([&] { io_.TarnMkdir("/a/b"); }), "Fail to create dir /a/b");
}

using IterateDirectoryTest = UtilsTest;

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
	const size_t before = descriptors();
	const auto fail = [](const std::string&) { throw std::runtime_error("stop"); };
	EXPECT_THROW(io_.IterateDirectory(directory_ / "t", fail, true), std::runtime_error);
	EXPECT_EQ(descriptors(), before);
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

TEST_F(IterateDirectoryTest, WalksDeeperThanThereAreDescriptors) {
	MakeDeepTree(directory_ / "t", 1100);
	const FewDescriptors few;
	const std::vector<std::string> paths = Walk(io_, directory_ / "t", true);
	ASSERT_THAT(paths, testing::SizeIs(2200));
	std::vector<size_t> lengths; // of the directories: each comes after the one in it
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

TEST(FlatFileNameTest, ReplacesSlashesAndDots) {
	EXPECT_EQ(FlatFileName("a/b.c"), "a_b_c");
	EXPECT_EQ(FlatFileName("../x"), "___x");
	EXPECT_EQ(FlatFileName(""), "");
}

TEST(NoexceptFormatTest, NeverThrows) {
	EXPECT_EQ((NoexceptFormat("%s-%d") % "a" % 7).str(), "a-7");
	EXPECT_NO_THROW((NoexceptFormat("%s %s") % "one").str());
	EXPECT_NO_THROW((NoexceptFormat("%s") % "one" % "two").str());
	EXPECT_NO_THROW((NoexceptFormat("100%") % "one").str());
	EXPECT_NO_THROW((NoexceptFormat("%1$") % "one").str());
}

} // namespace
} // namespace tarn::dataupdate
