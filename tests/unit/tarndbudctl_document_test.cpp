#include "base/unique_fd.h"
#include "dataupdate/paths.h"
#include "expect_error.h"
#include "host/library/checked_info_getter.h"
#include "host/library/document_problem.h"
#include "host/library/services.h"
#include "host/terminal/text.h"
#include "mocks.h"
#include "private_root.h"
#include "temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/reader.h>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

namespace tarn::ctl {
namespace {

using dataupdate::UpdateError;
using test::MessageOf;
using testing::AllOf;
using testing::HasSubstr;
using testing::NiceMock;
using testing::Return;
using testing::Throw;

constexpr char kLink[] = "http://server/database_info/1?os=orv";

Json::Value Parse(const std::string& text) {
	Json::Value value;
	std::istringstream(text) >> value;
	return value;
}

TEST(DescribePageTest, TellsAWebPageFromBrokenJson) {
	EXPECT_EQ(DescribePage({kLink, "\n <html><b>Sign in</b>", 22}),
	    std::string("The answer of ") + kLink + " is no JSON document; it begins with \"<html><b>Sign in</b>\"");
	EXPECT_THAT(DescribePage({kLink, "{\"db_list\": ", 12}), HasSubstr("malformed JSON or nested too deeply"));
	EXPECT_THAT(DescribePage({kLink, "", 0}), HasSubstr(" is empty"));
	EXPECT_THAT(DescribePage({kLink, " \n", 2}), HasSubstr(" is empty"));
	EXPECT_THAT(DescribePage({kLink, "{", 3000000000}), HasSubstr("it is 3.0 GB long"));
}

TEST(DescribePageTest, QuotesABeginningThatIsSafeOnATerminal) {
	const std::string page = DescribePage({kLink, "\x1b]0;title\x07" + std::string(200, 'x'), 210});
	EXPECT_THAT(page, HasSubstr("begins with \"?]0;title?" + std::string(50, 'x') + "...\""));
}

struct Case {
	const char* document;
	const char* problem;
};

class DescribeDocumentTest : public testing::TestWithParam<Case> {};

TEST_P(DescribeDocumentTest, SaysInWhatTheDocumentIsMalformed) {
	EXPECT_EQ(DescribeDocument(Parse(GetParam().document), "geo"), GetParam().problem);
}

#define ENTRY(members) R"({"deprecated":false,"db_list":{"geo":{)" members "}}}"
#define GOOD R"("data_version":"9","last_fetch_time":1,"download_link":"http://x/")"

INSTANTIATE_TEST_SUITE_P(Documents, DescribeDocumentTest,
    testing::Values(Case{"[1]", "is malformed: it is an array, not an object"},
        Case{"\"a\"", "is malformed: it is a string, not an object"},
        Case{"{}", "is malformed: its \"db_list\" is missing or null, not an object"},
        Case{R"({"db_list":[]})", "is malformed: its \"db_list\" is an array, not an object"},
        Case{R"({"db_list":{},"deprecated":"no"})", "is malformed: its \"deprecated\" is a string, not true or false"},
        Case{R"({"db_list":{"other":{}}})", "does not offer geo"},
        Case{R"({"db_list":{"geo":7}})", "is malformed: geo is a number, not an object"},
        Case{ENTRY(R"("data_version":7)"), "is malformed: \"data_version\" of geo is 7, not a string of digits"},
        Case{ENTRY(R"("data_version":"x","last_fetch_time":1,"download_link":"")"),
            "is malformed: \"data_version\" of geo is \"x\", which is no version number"},
        Case{ENTRY(R"("data_version":"9","last_fetch_time":99999999999)"),
            "is malformed: \"last_fetch_time\" of geo is 99999999999, not a 32-bit integer"},
        Case{ENTRY(R"("data_version":"9","last_fetch_time":1)"),
            "is malformed: \"download_link\" of geo is missing or null, not a string"},
        Case{R"({"db_list":{"geo":{)" GOOD "}}}",
            "is malformed: \"deprecated\" of geo is missing or null, not true or false"},
        Case{ENTRY(GOOD R"(,"diff_files":[1])"), "is malformed: \"diff_files\" of geo is an array, not an object"},
        Case{ENTRY(GOOD R"(,"diff_files":{"9":{"download_link":"x","file_size":"9"}})"),
            "is malformed: \"file_size\" of the diff package \"9\" of geo is a string, not a 32-bit integer"},
        Case{ENTRY(GOOD R"(,"diff_files":{"nine":{"download_link":"x","file_size":9}})"),
            "is malformed: the diff package \"nine\" of geo is not named by a version number"},
        Case{ENTRY(GOOD), "is malformed"}));

TEST(DescribeCachingTest, NamesTheMomentWhenTheServerIsAskedAgain) {
	constexpr std::time_t kModified = 1700000000;
	EXPECT_THAT(DescribeCaching(kModified, kModified + 3600), HasSubstr("until " + FormatClock(kModified + 3601)));
	EXPECT_EQ(DescribeCaching(kModified, kModified + 3601), "");
}

/** Hands out a document, or fails. */
class HandingGetter : public CheckedInfoGetter {
public:
	HandingGetter()
	    : CheckedInfoGetter(
	          std::make_shared<NiceMock<test::MockIOUtils>>(), std::make_shared<NiceMock<test::MockServiceConfig>>()) {
		ON_CALL(*this, GetDatabaseUrl).WillByDefault(Return(kLink));
	}
	MOCK_METHOD(Json::Value, FetchDatabaseInfo, (), (const, override));
	MOCK_METHOD(std::string, GetDatabaseUrl, (), (const, override));
};

/** Looks at no file either. */
class TestedGetter : public HandingGetter {
public:
	MOCK_METHOD(std::string, CacheStamp, (), (const, override));
};

TEST(CheckedInfoGetterTest, AsksForTheDocumentOnceInARun) {
	const NiceMock<TestedGetter> getter;
	EXPECT_CALL(getter, FetchDatabaseInfo).WillOnce(Return(Parse(ENTRY(GOOD))));
	EXPECT_EQ(getter.GetRemoteInfo("geo").data_version, 9);
	EXPECT_TRUE(getter.GetDiffInfos("geo").empty());
	EXPECT_EQ(getter.GetRemoteInfo("geo").download_link, "http://x/");
}

class DatedDocumentTest : public test::FixedPathsTest {};

TEST_F(DatedDocumentTest, IsAskedForAgainInALongRun) {
	test::WriteFile(dataupdate::kCachedInfo, "{}");
	NiceMock<HandingGetter> getter;
	EXPECT_CALL(getter, FetchDatabaseInfo).WillRepeatedly(Return(Parse(ENTRY(GOOD))));
	std::time_t fetched = 0;
	do { // Until it was still young after it was read.
		fetched = std::time(nullptr) - dataupdate::kFreshInfoSeconds + 1;
		const timespec time = {fetched, 0};
		const std::array<timespec, 2> times = {time, time};
		ASSERT_EQ(utimensat(AT_FDCWD, dataupdate::kCachedInfo, times.data(), 0), 0);
		getter.GetDatabaseInfo();
	} while (std::time(nullptr) - fetched > dataupdate::kFreshInfoSeconds);
	testing::Mock::VerifyAndClearExpectations(&getter);
	while (std::time(nullptr) - fetched <= dataupdate::kFreshInfoSeconds) {
		usleep(10000);
	}
	EXPECT_CALL(getter, FetchDatabaseInfo).WillOnce(Return(Parse(ENTRY(GOOD))));
	getter.GetDatabaseInfo();
}

TEST(CheckedInfoGetterTest, TakesUpADocumentThatSomebodyElseFetched) {
	const NiceMock<TestedGetter> getter;
	EXPECT_CALL(getter, CacheStamp).WillOnce(Return("1")).WillOnce(Return("1")).WillRepeatedly(Return("2"));
	EXPECT_CALL(getter, FetchDatabaseInfo)
	    .WillOnce(Return(Parse(ENTRY(GOOD))))
	    .WillOnce(Return(Parse(ENTRY(R"("data_version":"10","last_fetch_time":1,"download_link":"http://y/")"))));
	EXPECT_TRUE(getter.GetDatabaseInfo().isMember("db_list"));
	EXPECT_EQ(getter.GetRemoteInfo("geo").data_version, 10);
	EXPECT_EQ(getter.GetRemoteInfo("geo").download_link, "http://y/");
}

TEST(CheckedInfoGetterTest, ReadsAgainWhatMayHaveBeenRenewedWhileItWasRead) {
	const NiceMock<TestedGetter> getter;
	EXPECT_CALL(getter, CacheStamp).WillOnce(Return("1")).WillRepeatedly(Return("2"));
	EXPECT_CALL(getter, FetchDatabaseInfo)
	    .WillOnce(Return(Parse(ENTRY(GOOD))))
	    .WillOnce(Return(Parse(ENTRY(R"("data_version":"10","last_fetch_time":1,"download_link":"http://y/")"))));
	EXPECT_TRUE(getter.GetDatabaseInfo().isMember("db_list"));
	EXPECT_EQ(getter.GetRemoteInfo("geo").download_link, "http://y/");
	EXPECT_EQ(getter.GetRemoteInfo("geo").download_link, "http://y/") << "it is kept from then on";
}

TEST(CheckedInfoGetterTest, TriesOnceWhenTheServerCannotBeReached) {
	const NiceMock<TestedGetter> getter;
	EXPECT_CALL(getter, FetchDatabaseInfo).WillOnce(Throw(UpdateError("Fail to wget url: x")));
	EXPECT_EQ(MessageOf([&] { getter.GetRemoteInfo("geo"); }), "Fail to wget url: x");
	EXPECT_EQ(MessageOf([&] { getter.GetRemoteInfo("zip"); }), "Fail to wget url: x");
}

TEST(CheckedInfoGetterTest, NamesTheLinkOfADocumentThatIsMalformed) {
	for (const char* document : {"[1]", "5", "\"text\"", R"({"db_list":"x"})", ENTRY(R"("data_version":"x")"),
	         ENTRY(R"("data_version":"99999999999","last_fetch_time":1,"download_link":"x")")}) {
		const NiceMock<TestedGetter> getter;
		ON_CALL(getter, FetchDatabaseInfo).WillByDefault(Return(Parse(document)));
		EXPECT_THAT(MessageOf([&] { getter.GetRemoteInfo("geo"); }),
		    HasSubstr(std::string("The document of ") + kLink + " is malformed: "))
		    << document;
	}
}

TEST(CheckedInfoGetterTest, NamesTheLinkOfDiffPackagesThatAreMalformed) {
	const NiceMock<TestedGetter> getter;
	ON_CALL(getter, FetchDatabaseInfo)
	    .WillByDefault(Return(Parse(ENTRY(GOOD R"(,"diff_files":{"x":{"download_link":"x","file_size":1}})"))));
	EXPECT_EQ(getter.GetRemoteInfo("geo").data_version, 9);
	EXPECT_THAT(MessageOf([&] { getter.GetDiffInfos("geo"); }), AllOf(HasSubstr(kLink), HasSubstr("\"x\" of geo")));
}

/** What the library would take for a number, or for the beginning of it. */
constexpr const char* kNoVersions[] = {"-5", "99abc", "0x63", " 9", "9 ", "+9", "", "9.0", "2147483648"};

TEST(CheckedInfoGetterTest, RefusesAVersionThatIsNotWrittenInDigitsAlone) {
	for (const std::string version : kNoVersions) {
		const NiceMock<TestedGetter> getter;
		ON_CALL(getter, FetchDatabaseInfo)
		    .WillByDefault(Return(Parse(R"({"deprecated":false,"db_list":{"geo":{"data_version":")" + version +
		                                R"(","last_fetch_time":1,"download_link":"http://x/"}}})")));
		EXPECT_THAT(MessageOf([&] { getter.GetRemoteInfo("geo"); }),
		    HasSubstr("is malformed: \"data_version\" of geo is \"" + version + "\", which is no version number"));
	}
}

TEST(CheckedInfoGetterTest, RefusesADiffPackageThatIsNotNamedInDigitsAlone) {
	for (const std::string version : kNoVersions) {
		const NiceMock<TestedGetter> getter;
		ON_CALL(getter, FetchDatabaseInfo)
		    .WillByDefault(Return(Parse(R"({"deprecated":false,"db_list":{"geo":{)" GOOD R"(,"diff_files":{")" +
		                                version + R"(":{"download_link":"x","file_size":1}}}}})")));
		EXPECT_EQ(getter.GetRemoteInfo("geo").data_version, 9);
		EXPECT_THAT(MessageOf([&] { getter.GetDiffInfos("geo"); }),
		    HasSubstr("the diff package \"" + version + "\" of geo is not named by a version number"));
	}
}

TEST(CheckedIOTest, NoticesAFileThatCouldNotBeWrittenToItsEnd) {
	const test::TemporaryDirectory directory;
	const std::string path = directory / "version.json";
	const Json::Value record = Parse(R"({"data_version":"3","last_fetch_time":1700000000,"file_statuses":{}})");
	CheckedIO().WriteJson(path, record);
	EXPECT_EQ(CheckedIO().ReadJson(path), record);
	rlimit limit = {};
	ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
	const rlim_t before = std::exchange(limit.rlim_cur, 10);
	const auto handler = std::signal(SIGXFSZ, SIG_IGN);
	ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
	const std::string message = MessageOf([&] { CheckedIO().WriteJson(path, record); });
	limit.rlim_cur = before;
	ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
	std::signal(SIGXFSZ, handler);
	EXPECT_EQ(message, "Fail to write: " + path);
}

TEST(CheckedIOTest, PutsAWholeFileInThePlaceOfTheOld) {
	const test::TemporaryDirectory directory;
	const std::string path = directory / "data_update.conf";
	test::WriteFile(path, "old");
	std::filesystem::create_symlink("data_update.conf", directory / "link");
	const UniqueFd old(open(path.c_str(), O_RDONLY | O_CLOEXEC));
	CheckedIO().WriteJson(directory / "link", Parse(R"({"a":1})"));
	EXPECT_EQ(test::ReadFile(path), "{\n\t\"a\" : 1\n}\n");
	std::array<char, 3> kept{};
	EXPECT_EQ(read(old.Get(), kept.data(), kept.size()), 3);
	EXPECT_EQ(std::string(kept.data(), kept.size()), "old") << "it was written to";
	EXPECT_TRUE(std::filesystem::is_symlink(directory / "link"));
	EXPECT_EQ(test::EntriesBelow(directory.Path()).size(), 2U);
}

TEST(CheckedIOTest, NamesTheFileWhoseParentCannotBeMade) {
	const test::TemporaryDirectory directory;
	test::WriteFile(directory / "file", "");
	const std::string path = directory / "file/data_update.conf";
	EXPECT_EQ(MessageOf([&] { CheckedIO().WriteJson(path, 1); }), "Fail to create parent folder: " + path);
}

TEST(CheckedIOTest, ReadsAgainWhatSomebodyIsWriting) {
	const test::TemporaryDirectory directory;
	const std::string path = directory / "version.json";
	test::WriteFile(path, "{\"a\": ");
	// As new as can be for as long as can be, however slowly this runs.
	timespec soon{};
	ASSERT_EQ(clock_gettime(CLOCK_REALTIME, &soon), 0);
	soon.tv_sec += 1;
	const std::array<timespec, 2> times = {soon, soon};
	ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
	const UniqueFd watch(inotify_init1(IN_CLOEXEC));
	ASSERT_GE(inotify_add_watch(watch.Get(), path.c_str(), IN_CLOSE_NOWRITE), 0);
	const auto writer = std::async(std::launch::async, [&] {
		// Somebody has read it as it was.
		inotify_event event = {};
		EXPECT_EQ(read(watch.Get(), &event, sizeof event), static_cast<ssize_t>(sizeof event));
		dataupdate::IOUtils().WriteJson(path, Parse(R"({"a":1})"));
	});
	EXPECT_EQ(CheckedIO().ReadJson(path)["a"].asInt(), 1);
}

TEST(CheckedIOTest, TakesAChangeForNewForTwoSecondsToTheFraction) {
	constexpr long kMillisecond = 1000000;
	constexpr timespec kChanged = {100, 500 * kMillisecond};
	EXPECT_TRUE(IsNew(kChanged, {102, 400 * kMillisecond}));
	EXPECT_FALSE(IsNew(kChanged, {102, 600 * kMillisecond}));
	EXPECT_TRUE(IsNew(kChanged, {98, 600 * kMillisecond}));
	EXPECT_FALSE(IsNew(kChanged, {98, 400 * kMillisecond}));
}

TEST(CheckedIOTest, WaitsForNobodyToMendAnOldFile) {
	const test::TemporaryDirectory directory;
	const std::string path = directory / "version.json";
	test::WriteFile(path, "{\"a\": ");
	constexpr timespec kLongAgo = {1700000000, 0};
	const std::array<timespec, 2> times = {kLongAgo, kLongAgo};
	ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
	const auto begin = std::chrono::steady_clock::now();
	EXPECT_EQ(MessageOf([&path] { CheckedIO().ReadJson(path); }), "Fail to decode: " + path);
	EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

TEST(CheckedIOTest, LooksTwiceAtAFileThatIsThere) {
	const test::TemporaryDirectory directory;
	const std::string path = directory / "version.json";
	test::WriteFile(path, "{\"a\": ");
	constexpr timespec kLongAgo = {1700000000, 0};
	const std::array<timespec, 2> times = {kLongAgo, kLongAgo};
	ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
	const UniqueFd watch(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
	// The kernel makes one event of several that are alike, so each opening needs its closing.
	ASSERT_GE(inotify_add_watch(watch.Get(), path.c_str(), IN_OPEN | IN_CLOSE), 0);
	EXPECT_EQ(MessageOf([&path] { CheckedIO().ReadJson(path); }), "Fail to decode: " + path);
	std::array<inotify_event, 8> events{};
	EXPECT_EQ(read(watch.Get(), events.data(), sizeof events), static_cast<ssize_t>(4 * sizeof(inotify_event)));
	EXPECT_EQ(MessageOf([&] { CheckedIO().ReadJson(path + ".missing"); }), "File not exist: " + path + ".missing");
}

TEST(CheckedInfoGetterTest, NamesTheRecordThatIsMalformed) {
	const auto io = std::make_shared<NiceMock<test::MockIOUtils>>();
	const CheckedInfoGetter getter(io, std::make_shared<NiceMock<test::MockServiceConfig>>());
	for (const char* record : {"[1]", "7", R"({"data_version":"x","last_fetch_time":1,"file_statuses":{}})"}) {
		ON_CALL(*io, ReadJson("/var/lib/data_update/geo/version.json")).WillByDefault(Return(Parse(record)));
		EXPECT_THAT(MessageOf([&] { getter.GetDatabaseStatus("geo"); }),
		    AllOf(HasSubstr("/var/lib/data_update/geo/version.json, is malformed"), HasSubstr("remove it")))
		    << record;
	}
}

} // namespace
} // namespace tarn::ctl
