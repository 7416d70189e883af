#include "dataupdate/utils.h"
#include "fake_platform.h"
#include "fake_system.h"
#include "library_test.h"

#include <gmock/gmock.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

using testing::Pair;

// No component of a path may be longer than 255 bytes, so every operation on it fails.
const std::string kTooLong = std::string(300, 'x');

class UtilsTest : public testing::Test {
protected:
	test::TemporaryDirectory directory_;
	test::FakePlatform platform_;
	test::FakeSystem system_;
	IOUtils io_;
};

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
