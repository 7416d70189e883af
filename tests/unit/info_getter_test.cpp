#include "dataupdate/file_lock.h"
#include "dataupdate/paths.h"
#include "dataupdate/update.h"
#include "fake_platform.h"
#include "fake_system.h"
#include "library_test.h"
#include "mocks.h"
#include "private_root.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

constexpr char kDirectory[] = "/var/cache/data_update";
constexpr char kCache[] = "/var/cache/data_update/database_info.json";
constexpr char kLock[] = "/run/data_update/fresh_info.lock";
constexpr char kStatus[] = "/var/lib/data_update/geo/version.json";
constexpr char kUrl[] = "https://host:1/database_info/v3?os=orv&dlid=0123456789abcdef0123456789abcdef";

class InfoGetterTest : public test::FixedPathsTest {
protected:
	InfoGetterTest() {
		ON_CALL(*config_, GetDownloadScheme()).WillByDefault(Return("https"));
		ON_CALL(*config_, GetDBInfoDomainName()).WillByDefault(Return("host:1"));
		ON_CALL(*config_, GetDBInfoVersion()).WillByDefault(Return("v3"));
	}

	test::FakePlatform platform_;
	test::FakeSystem system_;
	test::SyslogCapture log_;
	std::shared_ptr<NiceMock<test::MockServiceConfig>> config_ = std::make_shared<NiceMock<test::MockServiceConfig>>();
	std::shared_ptr<StrictMock<test::MockIOUtils>> io_ = std::make_shared<StrictMock<test::MockIOUtils>>();
	InfoGetter getter_{io_, config_};
	InfoGetter real_{std::make_shared<IOUtils>(), config_};
};

/** An InfoGetter over a document that a test gives. */
class OverDocument : public InfoGetter {
public:
	explicit OverDocument(const std::string& text) : InfoGetter(nullptr, nullptr) {
		const test::TemporaryDirectory directory;
		WriteFile(directory / "f", text);
		document_ = IOUtils().ReadJson(directory / "f");
	}
	Json::Value GetDatabaseInfo() const override { return document_; }

private:
	Json::Value document_;
};

std::string Document(const std::string& top, const std::string& entry) {
	return R"({"db_list": {"geo": {"data_version": "7", "last_fetch_time": 9, "download_link": "l")" + entry +
	       R"(, "diff_files": {"7": {"download_link": "d", "file_size": 3}}}})" + top + "}";
}

TEST(InfoGetterDocumentTest, CutsOutOneDatabase) {
	const OverDocument getter(Document(R"(, "deprecated": false)", R"(, "deprecated": true)"));
	EXPECT_EQ(getter.GetRemoteInfo("geo"), RemoteInfo(7, 9, true, "l"));
	EXPECT_THAT(getter.GetDiffInfos("geo"), ElementsAre(testing::Pair(7, DiffInfo("d", 3))));
}

TEST(InfoGetterDocumentTest, FoldsInThatEverythingIsDeprecated) {
	const auto deprecated = [](const std::string& top, const std::string& entry) {
		return OverDocument(Document(top, entry)).GetRemoteInfo("geo").deprecated;
	};
	EXPECT_TRUE(deprecated(R"(, "deprecated": true)", R"(, "deprecated": false)"));
	EXPECT_TRUE(deprecated(R"(, "deprecated": true)", ""));
	EXPECT_FALSE(deprecated(R"(, "deprecated": false)", ""));
	EXPECT_TRUE(deprecated(R"(, "deprecated": false)", R"(, "deprecated": true)"));
	EXPECT_FALSE(deprecated("", R"(, "deprecated": false)"));
}

TEST(InfoGetterDocumentTest, RefusesAnEntryThatIsDeprecatedNowhere) {
	const OverDocument getter(Document("", ""));
	EXPECT_EQ(MessageOf([&] { getter.GetRemoteInfo("geo"); }), "Invalid json object for RemoteInfo");
}

TEST(InfoGetterDocumentTest, RefusesADatabaseThatTheServerDoesNotKnow) {
	const OverDocument getter(Document(R"(, "deprecated": false)", ""));
	EXPECT_EQ(MessageOf([&] { getter.GetRemoteInfo("poi"); }), "Invalid json object for RemoteInfo");
	EXPECT_THAT(getter.GetDiffInfos("poi"), IsEmpty());
}

TEST(InfoGetterDocumentTest, PassesOnWhatTheJsonLibraryThrows) {
	const OverDocument getter("[]");
	EXPECT_THROW(getter.GetRemoteInfo("geo"), Json::LogicError);
	EXPECT_THROW(getter.GetDiffInfos("geo"), Json::LogicError);
}

TEST_F(InfoGetterTest, BuildsTheUrlOfTheDocument) {
	class Double : public InfoGetter {
	public:
		using InfoGetter::InfoGetter;
		std::string GetQueryString() const override { return "?query"; }
	};
	EXPECT_EQ(Double(io_, config_).GetDatabaseUrl(), "https://host:1/database_info/v3?query");
	EXPECT_EQ(getter_.GetDatabaseUrl(), kUrl);
}

TEST_F(InfoGetterTest, AsksForTheSettingsOfTheUrlInOrder) {
	const InSequence order;
	EXPECT_CALL(*config_, GetDownloadScheme());
	EXPECT_CALL(*config_, GetDBInfoDomainName());
	EXPECT_CALL(*config_, GetDBInfoVersion());
	EXPECT_CALL(*config_, GetDatabaseIDs());
	getter_.GetDatabaseUrl();
}

TEST_F(InfoGetterTest, ListsTheDatabasesInByteOrderVerbatim) {
	const auto view = [](const std::string& format) {
		auto database = std::make_shared<NiceMock<test::MockDatabaseConfig>>();
		ON_CALL(*database, GetFormatVersion()).WillByDefault(Return(format));
		return database;
	};
	EXPECT_CALL(*config_, GetDatabaseIDs()).WillOnce(Return(std::vector<std::string>{"b", "a", "B"}));
	const InSequence order;
	EXPECT_CALL(*config_, GetDatabaseConfig("B")).WillOnce(Return(view("3 &")));
	EXPECT_CALL(*config_, GetDatabaseConfig("a")).WillOnce(Return(view("1")));
	EXPECT_CALL(*config_, GetDatabaseConfig("b")).WillOnce(Return(view("2")));
	platform_.hardware_id = "H";
	EXPECT_EQ(getter_.GetQueryString(), "?os=orv&dlid=H&db_list[B]=3 &&db_list[a]=1&db_list[b]=2");
	EXPECT_EQ(platform_.open_hardware_ids, 0);
}

TEST_F(InfoGetterTest, AsksWithoutDatabases) {
	EXPECT_EQ(getter_.GetQueryString(), "?os=orv&dlid=0123456789abcdef0123456789abcdef");
}

TEST_F(InfoGetterTest, AsksWithoutAHardwareId) {
	const auto database = std::make_shared<NiceMock<test::MockDatabaseConfig>>();
	ON_CALL(*database, GetFormatVersion()).WillByDefault(Return("1"));
	ON_CALL(*config_, GetDatabaseIDs()).WillByDefault(Return(std::vector<std::string>{"a"}));
	ON_CALL(*config_, GetDatabaseConfig("a")).WillByDefault(Return(database));
	platform_.hardware_id_works = false;
	EXPECT_EQ(getter_.GetQueryString(), "?os=orv&dlid=&db_list[a]=1");
	EXPECT_EQ(platform_.open_hardware_ids, 0);
	platform_.hardware_id_init_works = false;
	EXPECT_EQ(getter_.GetQueryString(), "?os=orv&dlid=&db_list[a]=1");
	const Line line{LOG_ERR, "", "Failed to init hwid context"};
	EXPECT_THAT(test::Lines(log_), ElementsAre(line, line));
}

TEST_F(InfoGetterTest, DownloadsWhatIsNotCachedUnderItsLock) {
	const InSequence order;
	const auto locked = [] { return MessageOf([] { FileLock(kLock, 0); }); };
	EXPECT_CALL(*io_, TarnMkdir(kDirectory)).WillOnce([](const std::string&) {
		EXPECT_NO_THROW(FileLock(kLock, 0)); // Not yet.
	});
	EXPECT_CALL(*io_, Download(kCache, kUrl)).WillOnce([&](const std::string&, const std::string&) {
		EXPECT_EQ(locked(), std::string("Fail to lock ") + kLock);
	});
	EXPECT_CALL(*io_, ReadJson(kCache)).WillOnce([&](const std::string&) {
		EXPECT_EQ(locked(), std::string("Fail to lock ") + kLock);
		return Json::Value("document");
	});
	EXPECT_EQ(getter_.GetDatabaseInfo(), Json::Value("document"));
	EXPECT_NO_THROW(FileLock(kLock, 0));
}

TEST_F(InfoGetterTest, AsksTheFileUtilityForTheCachesAge) {
	WriteFile(kCache, "{}");
	EXPECT_CALL(*io_, TarnMkdir(kDirectory)).Times(2);
	EXPECT_CALL(*io_, FileCreateOver(kCache, 3600)).WillOnce(Return(false)).WillOnce(Return(true));
	EXPECT_CALL(*io_, Download(kCache, kUrl)).Times(1);
	EXPECT_CALL(*io_, ReadJson(kCache)).Times(2);
	getter_.GetDatabaseInfo();
	getter_.GetDatabaseInfo();
}

TEST_F(InfoGetterTest, UsesACacheOf3600SecondsButNotOfOneMore) {
	WriteFile(kCache, "\"cached\"");
	struct stat status {};
	ASSERT_EQ(stat(kCache, &status), 0);
	platform_.download_content = "\"new\"";
	system_.seconds = status.st_mtime + 3600;
	EXPECT_EQ(real_.GetDatabaseInfo(), Json::Value("cached"));
	EXPECT_EQ(platform_.CountEvents("/usr/bin/wget"), 0U);
	system_.seconds = status.st_mtime + 3601;
	EXPECT_EQ(real_.GetDatabaseInfo(), Json::Value("new"));
	EXPECT_EQ(platform_.CountEvents("/usr/bin/wget"), 1U);
}

TEST_F(InfoGetterTest, AsksAnewAfterAFetchThatWasKilled) {
	const auto download = platform_.execl;
	platform_.execl = [](const std::string&, unsigned int, const test::FakePlatform::Arguments&) -> int {
		WriteFile(kCache, "");
		throw std::runtime_error("killed");
	};
	EXPECT_THROW(real_.GetDatabaseInfo(), std::runtime_error);
	platform_.execl = download;
	platform_.download_content = "\"new\"";
	EXPECT_EQ(real_.GetDatabaseInfo(), Json::Value("new"));
	platform_.download_content = "\"newer\"";
	EXPECT_EQ(real_.GetDatabaseInfo(), Json::Value("new"));
}

TEST_F(InfoGetterTest, LeavesNoMarkOfADownloadThatFailed) {
	const auto download = platform_.execl;
	platform_.execl = [](const std::string&, unsigned int, const test::FakePlatform::Arguments&) { return 8; };
	MessageOf([this] { real_.GetDatabaseInfo(); });
	EXPECT_FALSE(fs::exists(kFetchMark));
	WriteFile(kCache, "\"came another way\"");
	platform_.execl = download;
	EXPECT_EQ(real_.GetDatabaseInfo(), Json::Value("came another way"));
	EXPECT_EQ(platform_.CountEvents("/usr/bin/wget"), 1U);
}

TEST_F(InfoGetterTest, TakesWhatAKilledFetchLeftForNoDocumentThoughTheNextNeverBegins) {
	WriteFile(kCache, "\"cut o");
	WriteFile(kFetchMark, "");
	platform_.user_agent_result = -1;
	EXPECT_EQ(MessageOf([this] { real_.GetDatabaseInfo(); }), "Fail to generate user agent string");
	platform_.user_agent_result = 0;
	platform_.download_content = "\"new\"";
	EXPECT_EQ(real_.GetDatabaseInfo(), Json::Value("new"));
	EXPECT_FALSE(fs::exists(kFetchMark));
}

TEST_F(InfoGetterTest, MarksADocumentThatMayNotBeOnTheDisk) {
	platform_.download_content = "\"new\"";
	system_.Fail("fsync", EIO, 1);
	EXPECT_EQ(real_.GetDatabaseInfo(), Json::Value("new"));
	EXPECT_TRUE(fs::exists(kFetchMark));
	EXPECT_EQ(real_.GetDatabaseInfo(), Json::Value("new"));
	EXPECT_FALSE(fs::exists(kFetchMark));
	EXPECT_EQ(platform_.CountEvents("/usr/bin/wget"), 2U);
}

TEST_F(InfoGetterTest, LetsAHostWaitForTheDocumentAsLongAsItLikes) {
	const FileLock other(kLock, 0);
	EXPECT_EQ(MessageOf([] {
		return GetFreshInfo(
		    IOUtils(), [] { return kUrl; }, 3);
	}),
	    std::string("Fail to lock ") + kLock);
	EXPECT_EQ(system_.polls, 30);
}

TEST_F(InfoGetterTest, CountsTheCachesAgeFromTheDownload) {
	for (const std::time_t dated : {std::time_t{1000000000}, std::time_t{4000000000}}) {
		fs::remove_all(kDirectory);
		platform_.execl = [&](const std::string&, unsigned int, const test::FakePlatform::Arguments&) {
			WriteFile(kCache, "{}");
			const timespec times[2] = {{dated, 0}, {dated, 0}};
			return utimensat(AT_FDCWD, kCache, static_cast<const timespec*>(times), 0);
		};
		const std::time_t before = std::time(nullptr);
		real_.GetDatabaseInfo();
		struct stat status {};
		ASSERT_EQ(stat(kCache, &status), 0);
		EXPECT_GE(status.st_mtime, before - 1);
		EXPECT_LE(status.st_mtime, before + 60);
	}
}

TEST_F(InfoGetterTest, LogsAndPassesOnAFailedDownloadWithoutAnOldDocument) {
	WriteFile(kCache, "{}");
	system_.seconds = std::time(nullptr) + 10000;
	platform_.execl = [](const std::string&, unsigned int, const test::FakePlatform::Arguments&) { return 4; };
	const std::string message = std::string("Fail to wget url: ") + kUrl;
	EXPECT_EQ(MessageOf([this] { real_.GetDatabaseInfo(); }), message);
	EXPECT_THAT(LinesOf(log_, "update"), ElementsAre(Line{LOG_INFO, "update", "Fail during fresh database info"},
	                                         Line{LOG_INFO, "update", "Error message: " + message}));
	EXPECT_EQ(platform_.CountEvents("/usr/bin/wget"), 1U); // Not tried again.
	EXPECT_FALSE(fs::exists(kCache));
	EXPECT_NO_THROW(FileLock(kLock, 0));
}

TEST_F(InfoGetterTest, LogsAndPassesOnThatTheDocumentIsNoJson) {
	platform_.download_content = "<html>please log in</html>";
	EXPECT_EQ(MessageOf([this] { real_.GetDatabaseInfo(); }), std::string("Fail to decode: ") + kCache);
	EXPECT_THAT(LinesOf(log_, "update"), testing::SizeIs(2));
}

TEST_F(InfoGetterTest, DoesNotLogThatTheCachesDirectoryCannotBeMade) {
	platform_.mkdir_works = false;
	EXPECT_EQ(MessageOf([this] { real_.GetDatabaseInfo(); }), std::string("Fail to create dir ") + kDirectory);
	EXPECT_THAT(test::Lines(log_), IsEmpty());
}

TEST_F(InfoGetterTest, WaitsForOthers600Seconds) {
	const FileLock other(kLock, 0);
	EXPECT_EQ(MessageOf([this] { real_.GetDatabaseInfo(); }), std::string("Fail to lock ") + kLock);
	EXPECT_EQ(system_.polls, 6000);
	EXPECT_THAT(LinesOf(log_, "update"), testing::SizeIs(2));
}

TEST_F(InfoGetterTest, DoesNotLogWhatIsNoErrorOfTheLibrary) {
	EXPECT_CALL(*io_, TarnMkdir(kDirectory));
	EXPECT_CALL(*io_, Download(_, _)).WillOnce(Throw(std::runtime_error("other")));
	EXPECT_THROW(getter_.GetDatabaseInfo(), std::runtime_error);
	EXPECT_THAT(LinesOf(log_, "update"), IsEmpty());
}

TEST_F(InfoGetterTest, RecordsWhatIsInstalled) {
	DatabaseStatus status;
	status.data_version = 7;
	status.file_statuses.emplace("/v/f", FileStatus("d"));
	real_.SetDatabaseStatus("geo", status);
	EXPECT_EQ(real_.GetDatabaseStatus("geo"), status);
	EXPECT_TRUE(fs::exists(kStatus));
	EXPECT_THAT(test::Lines(log_), IsEmpty());
}

TEST_F(InfoGetterTest, PassesOnThatARecordCannotBeWritten) {
	EXPECT_CALL(*io_, WriteJson(kStatus, _)).WillOnce(Throw(UpdateError("full")));
	EXPECT_EQ(MessageOf([this] { getter_.SetDatabaseStatus("geo", {}); }), "full");
}

TEST_F(InfoGetterTest, LeavesAMarkToWhoSetIt) {
	const std::string mark = "/var/lib/data_update/geo/replacing";
	WriteFile(mark, "");
	real_.SetDatabaseStatus("geo", {});
	EXPECT_TRUE(fs::exists(mark));
	EXPECT_TRUE(fs::exists(kStatus));
}

TEST_F(InfoGetterTest, TakesAMissingRecordForNothingInstalled) {
	EXPECT_EQ(real_.GetDatabaseStatus("geo"), DatabaseStatus());
	EXPECT_THAT(test::Lines(log_), ElementsAre(Line{LOG_INFO, "update", std::string("File not exist: ") + kStatus}));
}

TEST_F(InfoGetterTest, TakesACorruptRecordForNothingInstalled) {
	const Line general{LOG_WARNING, "update", "geo version file gone or corrupted or in the first updating"};
	WriteFile(kStatus, R"({"data_version": "7")");
	EXPECT_EQ(real_.GetDatabaseStatus("geo").data_version, -1);
	WriteFile(kStatus, R"({"data_version": "7"})");
	EXPECT_EQ(real_.GetDatabaseStatus("geo").data_version, -1);
	EXPECT_THAT(
	    test::Lines(log_), ElementsAre(Line{LOG_WARNING, "update", std::string("Fail to decode: ") + kStatus}, general,
	                           Line{LOG_WARNING, "update", "Invalid json object for DatabaseStatus"}, general));
}

} // namespace
} // namespace tarn::dataupdate
