#include "dataupdate/installation.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/replacement_scope.h"
#include "dataupdate/update.h"
#include "fake_packages.h"
#include "fake_platform.h"
#include "fake_system.h"
#include "library_test.h"
#include "mocks.h"
#include "private_root.h"

#include <gmock/gmock.h>

#include <syslog.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

constexpr char kMark[] = "/var/lib/data_update/geo/replacing";
constexpr char kPlan[] = "/var/lib/data_update/geo/replacement";
constexpr char kRecord[] = "/var/lib/data_update/geo/version.json";

class ReplacementScopeTest : public test::FixedPathsTest {
protected:
	void TearDown() override {
		ForgetInterruption();
		FixedPathsTest::TearDown();
	}

	test::FakeSystem system_;
	test::SyslogCapture log_;
};

TEST_F(ReplacementScopeTest, MarksAndShieldsFromTheAnnouncementOn) {
	RequestInterruption();
	{
		const ReplacementScope scope("geo");
		EXPECT_TRUE(IsInterrupted()); // Nothing has changed yet.
		EXPECT_FALSE(fs::exists(kMark));
		AnnounceReplacement("geo");
		EXPECT_FALSE(IsInterrupted());
		EXPECT_TRUE(fs::exists(kMark));
	}
	EXPECT_TRUE(IsInterrupted());
	EXPECT_TRUE(fs::exists(kMark)); // No new state was recorded.
}

TEST_F(ReplacementScopeTest, TakesTheMarkAwayByTheRecord) {
	const ReplacementScope scope("geo");
	AnnounceReplacement("geo");
	AnnounceReplacement("geo");
	scope.EndByRecord();
	EXPECT_FALSE(fs::exists(kMark));
	RequestInterruption();
	EXPECT_FALSE(IsInterrupted()); // Until its end.
}

TEST_F(ReplacementScopeTest, IsThatOfOneDatabaseInAnyThread) {
	const ReplacementScope scope("geo");
	AnnounceReplacement("poi");
	EXPECT_FALSE(fs::exists("/var/lib/data_update/poi"));
	std::thread([] { AnnounceReplacement("geo"); }).join();
	EXPECT_TRUE(fs::exists(kMark));
}

TEST_F(ReplacementScopeTest, GoesOnWithoutAMarkThatCannotBeSet) {
	const ReplacementScope scope("geo");
	system_.Fail("fsync", EIO);
	AnnounceReplacement("geo");
	EXPECT_THAT(test::Lines(log_), ElementsAre(Line{LOG_ERR, "replacement_scope.cpp",
	                                   std::string("Fail to mark replacement: ") + kMark + ": Input/output error"}));
	RequestInterruption();
	EXPECT_FALSE(IsInterrupted());
}

TEST_F(ReplacementScopeTest, IsNothingToWhoOpensNone) {
	AnnounceReplacement("geo");
	EXPECT_FALSE(fs::exists(kMark));
	RequestInterruption();
	EXPECT_TRUE(IsInterrupted());
}

/** The front over real strategies, from version 3 to 5; the record is written as the library writes it. */
class MarkedReplacementTest : public ReplacementScopeTest {
protected:
	MarkedReplacementTest() {
		ON_CALL(*config_, GetDatabaseConfig(_)).WillByDefault(Return(database_));
		ON_CALL(*config_, GetCurVolume()).WillByDefault(Return(directory_ / "volume"));
		ON_CALL(*database_, GetInstallPrefix()).WillByDefault(Return(directory_ / "volume/db/geo"));
		ON_CALL(*database_, GetRootDirectory()).WillByDefault(Return(directory_ / ""));
		ON_CALL(*getter_, GetDatabaseStatus(_)).WillByDefault([this](const std::string&) {
			DatabaseStatus status;
			status.data_version = installed_;
			return status;
		});
		ON_CALL(*getter_, GetRemoteInfo(_)).WillByDefault(Return(RemoteInfo(5, 1, false, "http://h/full")));
		ON_CALL(*getter_, GetDiffInfos(_))
		    .WillByDefault(Return(std::map<int, DiffInfo>{{4, {"http://h/4", 1}}, {5, {"http://h/5", 1}}}));
		ON_CALL(*getter_, SetDatabaseStatus(_, _)).WillByDefault([](const std::string&, const DatabaseStatus&) {
			EXPECT_TRUE(fs::exists(kMark)); // Until the record has been written.
			WriteFile(kRecord, "{new}");
		});
		const std::string description = R"({"a": {"operation": "update", "input_file": "p.vcdiff"}})";
		packages_.by_link["http://h/4"] = {{"patch_infos.json", description}, {"p.vcdiff", "4"}};
		packages_.by_link["http://h/5"] = {{"patch_infos.json", description}, {"p.vcdiff", "5"}};
		packages_.by_link["http://h/full"] = {{"a", "345"}};
		WriteFile(Installed("a"), "3");
		// The first change of an installed file: by then the mark is on the disk.
		system_.on_call = [](const std::string& call) {
			if (call == "renameat2") {
				EXPECT_TRUE(fs::exists(kMark));
				RequestInterruption();
				EXPECT_FALSE(IsInterrupted());
			}
		};
	}

	void SetUp() override {
		ReplacementScopeTest::SetUp();
		WriteFile(kRecord, "{old}");
	}
	std::string Installed(const std::string& name) const { return directory_ / ("volume/db/geo/" + name); }
	/** Of a full package, once the mark is there. */
	void FailWhileReplacing() {
		packages_.by_link.erase("http://h/4");
		system_.on_call = [this](const std::string& call) {
			if (call == "renameat2" && fs::exists(kMark)) {
				system_.Fail("renameat2", EIO, 1000);
				system_.Fail("linkat", EIO, 1000);
			}
		};
	}
	void ExpectDone() const {
		EXPECT_FALSE(fs::exists(kMark));
		EXPECT_EQ(ReadFile(kRecord), "{new}");
		EXPECT_TRUE(IsInterrupted()); // Now it may end.
	}

	test::TemporaryDirectory directory_;
	test::FakePlatform platform_;
	test::FakePackages packages_{platform_};
	int installed_ = 3;
	std::shared_ptr<NiceMock<test::MockDatabaseConfig>> database_ =
	    std::make_shared<NiceMock<test::MockDatabaseConfig>>();
	std::shared_ptr<NiceMock<test::MockServiceConfig>> config_ = std::make_shared<NiceMock<test::MockServiceConfig>>();
	std::shared_ptr<NiceMock<test::MockInfoGetter>> getter_ = std::make_shared<NiceMock<test::MockInfoGetter>>();
	Update update_{std::make_shared<Updater>(), getter_, config_};
};

TEST_F(MarkedReplacementTest, OfADiffUpdateEndsByItsRecord) {
	update_.UpdateProject("geo");
	ExpectDone();
	EXPECT_EQ(platform_.CountEvents("/usr/bin/wget -N http://h/full "), 0U);
}

TEST_F(MarkedReplacementTest, OfAFullUpdateEndsByItsRecord) {
	packages_.by_link.erase("http://h/4");
	update_.UpdateProject("geo");
	ExpectDone();
}

TEST_F(MarkedReplacementTest, OfAFixEndsByItsRecord) {
	installed_ = -1;
	update_.FixProject("geo");
	ExpectDone();
}

TEST_F(MarkedReplacementTest, ThatFailedIsFinishedLaterFromWhatIsOnTheDisk) {
	FailWhileReplacing();
	EXPECT_THROW(update_.UpdateProject("geo"), UpdateError);
	EXPECT_TRUE(fs::exists(kMark));
	EXPECT_TRUE(fs::exists(kPlan));
}

TEST_F(MarkedReplacementTest, ThatFailedIsNotFinishedFromWhatTheDiskDidNotTake) {
	FailWhileReplacing();
	system_.Fail("syncfs", EIO);
	EXPECT_THROW(update_.UpdateProject("geo"), UpdateError);
	EXPECT_TRUE(fs::exists(kMark));
	EXPECT_FALSE(fs::exists(kPlan));
}

TEST_F(MarkedReplacementTest, OfAForcedInstallationEndsByItsRecord) {
	platform_.extract_more = [](const std::string&) {
		EXPECT_TRUE(fs::exists(kMark));
		RequestInterruption();
		EXPECT_FALSE(IsInterrupted());
	};
	WriteFile(kRecord, R"({"data_version": "99999999999999999999"})"); // Which nothing reads.
	update_.ForceInstall("geo", 0);
	ExpectDone();
}

TEST_F(MarkedReplacementTest, StaysWhenTheRecordCannotBeWritten) {
	EXPECT_CALL(*getter_, SetDatabaseStatus).WillRepeatedly(Throw(UpdateError("full")));
	EXPECT_EQ(MessageOf([this] { update_.UpdateProject("geo"); }), "full");
	EXPECT_TRUE(fs::exists(kMark));
	EXPECT_TRUE(IsInterrupted());
	ForgetInterruption();
	EXPECT_EQ(MessageOf([this] { update_.ForceInstall("geo", 0); }), "full");
	EXPECT_TRUE(fs::exists(kMark));
}

TEST_F(MarkedReplacementTest, IsMadeGoodByTheFullPackage) {
	packages_.by_link["http://h/5"] = {{"patch_infos.json", R"({"a": {"operation": "update", "input_file": "p.vcdiff"},
	        "new": {"operation": "create", "input_file": "p.vcdiff"}})"},
	    {"p.vcdiff", "5"}};
	packages_.by_link["http://h/full"]["new"] = "5";
	system_.Fail("renameat2", EIO, 2);
	system_.Fail("linkat", EIO, 1, 1); // The second of two files.
	EXPECT_THAT(MessageOf([this] { update_.UpdateProject("geo"); }), StartsWith("Fail to diff update: "));
	EXPECT_EQ(ReadFile(Installed("a")), "345"); // A mixture.
	EXPECT_FALSE(fs::exists(Installed("new")));
	ForgetInterruption();
	update_.UpdateProject("geo");
	EXPECT_EQ(ReadFile(Installed("a")), "345"); // Not "34545".
	EXPECT_EQ(ReadFile(Installed("new")), "5");
	EXPECT_EQ(platform_.CountEvents("/usr/bin/wget -N http://h/full "), 1U);
	ExpectDone();
}

TEST_F(MarkedReplacementTest, IsPatchedByNoChainEitherThatBeginsWithTheFirstVersion) {
	WriteFile(kMark, "");
	EXPECT_CALL(*getter_, GetDiffInfos(_)).WillOnce([this](const std::string&) {
		std::map<int, DiffInfo> diffs;
		for (int version = 0; version <= 5; ++version) {
			diffs.emplace(version, DiffInfo("http://h/" + std::to_string(version), 1));
			packages_.by_link["http://h/" + std::to_string(version)] = {{"patch_infos.json", "{}"}};
		}
		return diffs;
	});
	WriteFile(Installed("left"), "of the mixture");
	update_.UpdateProject("geo");
	EXPECT_FALSE(fs::exists(Installed("left")));
	ExpectDone();
}

TEST_F(MarkedReplacementTest, GoesOnWithoutAMarkThatCannotBeSet) {
	system_.on_call = {};
	ON_CALL(*getter_, SetDatabaseStatus(_, _)).WillByDefault([](const std::string&, const DatabaseStatus&) {});
	fs::create_symlink("/var/lib/data_update/elsewhere", kMark); // Never written through.
	system_.Fail("fsync", EIO, 9);
	installed_ = 3;
	update_.UpdateProject("geo");
	EXPECT_EQ(ReadFile(Installed("a")), "345");
	EXPECT_THAT(LinesOf(log_, "replacement_scope.cpp"),
	    testing::Contains(testing::AllOf(testing::Field(&Line::priority, LOG_ERR),
	        testing::Field(&Line::text, StartsWith(std::string("Fail to mark replacement: ") + kMark)))));
}

TEST_F(MarkedReplacementTest, AlwaysTriesADiffFirstAfterAForcedVersion) {
	WriteFile(kRecord, R"({"data_version": "2", "last_fetch_time": 1, "file_statuses": {}})");
	packages_.by_link["http://h/full"] = {{"a", "3"}};
	system_.on_call = {};
	update_.ForceInstall("geo", 3);
	update_.UpdateProject("geo");
	EXPECT_EQ(ReadFile(Installed("a")), "345");
	EXPECT_EQ(platform_.CountEvents("/usr/bin/wget -N http://h/5 "), 1U);
}

} // namespace
} // namespace tarn::dataupdate
