#include "dataupdate/file_lock.h"
#include "dataupdate/update.h"
#include "fake_platform.h"
#include "fake_system.h"
#include "library_test.h"
#include "mocks.h"
#include "private_root.h"

#include <syslog.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

constexpr char kAnyLock[] = "/run/data_update/update_any.lock";
constexpr char kLock[] = "/run/data_update/update_geo.lock";
constexpr char kMark[] = "/var/lib/data_update/geo/replacing";
constexpr char kPlan[] = "/var/lib/data_update/geo/replacement";

bool IsFree(const std::string& lock) {
	try {
		const FileLock probe(lock, 0);
	} catch (const UpdateError&) {
		return false;
	}
	return true;
}

DatabaseStatus Installed(int version) {
	DatabaseStatus status;
	status.data_version = version;
	return status;
}

class UpdateTest : public test::FixedPathsTest {
protected:
	UpdateTest() {
		ON_CALL(*config_, GetDatabaseConfig(_)).WillByDefault(Return(database_));
		ON_CALL(*config_, GetCurVolume()).WillByDefault(Return(directory_ / "volume"));
		ON_CALL(*database_, GetInstallPrefix()).WillByDefault(Return(Prefix()));
		ON_CALL(*database_, GetRootDirectory()).WillByDefault(Return(directory_ / ""));
		ON_CALL(*getter_, GetDatabaseStatus(_)).WillByDefault(Return(Installed(3)));
		ON_CALL(*getter_, GetRemoteInfo(_)).WillByDefault(Return(Remote(10, "http://h/10/p_10")));
	}

	static RemoteInfo Remote(int version, const std::string& link) { return {version, 55, true, link}; }
	std::string Prefix() const { return directory_ / "volume/db/geo"; }
	/** The front's own lines. */
	std::vector<Line> Log() const { return LinesOf(log_, "update"); }

	test::TemporaryDirectory directory_;
	test::FakePlatform platform_;
	test::FakeSystem system_;
	test::SyslogCapture log_;
	std::shared_ptr<NiceMock<test::MockDatabaseConfig>> database_ =
	    std::make_shared<NiceMock<test::MockDatabaseConfig>>();
	std::shared_ptr<NiceMock<test::MockServiceConfig>> config_ = std::make_shared<NiceMock<test::MockServiceConfig>>();
	std::shared_ptr<NiceMock<test::MockInfoGetter>> getter_ = std::make_shared<NiceMock<test::MockInfoGetter>>();
	std::shared_ptr<StrictMock<test::MockUpdater>> updater_ = std::make_shared<StrictMock<test::MockUpdater>>();
	Update update_{updater_, getter_, config_};
};

using UpdateProjectTest = UpdateTest;

TEST_F(UpdateProjectTest, AsksAndRecordsInThisOrderUnderBothLocks) {
	const std::map<int, DiffInfo> diffs = {{10, DiffInfo("d", 1)}};
	const auto expect_locked = [] {
		EXPECT_FALSE(IsFree(kAnyLock));
		EXPECT_FALSE(IsFree(kLock));
	};
	const InSequence order;
	EXPECT_CALL(*config_, CheckSupported("geo")).WillOnce([](const std::string&) {
		EXPECT_TRUE(IsFree(kAnyLock)); // Locked only afterwards.
	});
	EXPECT_CALL(*getter_, GetDatabaseStatus("geo")).WillOnce([&](const std::string&) {
		expect_locked();
		return Installed(3);
	});
	EXPECT_CALL(*getter_, GetRemoteInfo("geo")).WillOnce(Return(Remote(10, "l")));
	EXPECT_CALL(*getter_, GetDiffInfos("geo")).WillOnce(Return(diffs));
	EXPECT_CALL(*config_, GetDatabaseConfig("geo")).WillOnce(Return(database_));
	EXPECT_CALL(*config_, GetCurVolume()).WillOnce(Return("/first"));
	EXPECT_CALL(*database_, GetRootDirectory()).WillOnce(Return("/root"));
	EXPECT_CALL(*database_, GetInstallPrefix()).WillOnce(Return("/prefix"));
	EXPECT_CALL(*config_, GetCurVolume()).WillOnce(Return("/second"));
	EXPECT_CALL(*updater_, Update("geo", Installed(3), Remote(10, "l"), diffs, "/second", "/prefix", "/root"))
	    .WillOnce(Return(Installed(10)));
	EXPECT_CALL(*getter_, SetDatabaseStatus("geo", Installed(10)))
	    .WillOnce([&](const std::string&, const DatabaseStatus&) { expect_locked(); });
	update_.UpdateProject("geo");
	EXPECT_TRUE(IsFree(kAnyLock));
	EXPECT_TRUE(IsFree(kLock));
}

TEST_F(UpdateProjectTest, LogsStartAndSuccess) {
	EXPECT_CALL(*updater_, Update).WillOnce(Return(Installed(10)));
	update_.UpdateProject("geo");
	EXPECT_THAT(Log(), ElementsAre(Line{LOG_WARNING, "update", "Update geo"},
	                       Line{LOG_WARNING, "update", "Update geo completed and succeed"}));
}

TEST_F(UpdateProjectTest, TakesTheLockOfAllBeforeTheDatabasesAndReleasesItAfter) {
	EXPECT_CALL(*updater_, Update).WillOnce(Return(Installed(10)));
	update_.UpdateProject("geo");
	const std::vector<Line> lines = LinesOf(log_, "file_lock.cpp");
	const auto line = [](const std::string& what, const std::string& path) {
		return Line{LOG_INFO, "file_lock.cpp", what + " lock on file: " + path};
	};
	EXPECT_THAT(lines, ElementsAre(line("Acquire", kAnyLock), line("Acquire", kLock), line("Release", kLock),
	                       line("Release", kAnyLock)));
}

TEST_F(UpdateProjectTest, LeavesWhatIsUpToDateOrNewer) {
	EXPECT_CALL(*getter_, SetDatabaseStatus).Times(0);
	for (const int version : {10, 11}) {
		EXPECT_CALL(*getter_, GetDatabaseStatus("geo")).WillOnce(Return(Installed(version)));
		update_.UpdateProject("geo");
	}
	const Line line{LOG_INFO, "update", "'geo' has been up to date"};
	EXPECT_THAT(Log(), ElementsAre(line, line));
	EXPECT_THAT(LinesOf(log_, "file_lock.cpp"), testing::SizeIs(8)); // Taken and released all the same.
}

TEST_F(UpdateProjectTest, RemovesAPlanWhoseMarkAPowerCutTook) {
	ON_CALL(*getter_, GetDatabaseStatus(_)).WillByDefault(Return(Installed(10)));
	WriteFile(kPlan, "");
	update_.UpdateProject("geo");
	EXPECT_FALSE(fs::exists(kPlan));
}

TEST_F(UpdateProjectTest, KeepsAPlanThatBelongsToAMark) {
	ON_CALL(*getter_, GetDatabaseStatus(_)).WillByDefault(Return(Installed(10)));
	WriteFile(kPlan, "");
	WriteFile(kMark, "");
	update_.UpdateProject("geo");
	EXPECT_TRUE(fs::exists(kPlan));
}

TEST_F(UpdateProjectTest, InstallsWhatWasNeverInstalled) {
	EXPECT_CALL(*getter_, GetDatabaseStatus("geo")).WillOnce(Return(DatabaseStatus()));
	EXPECT_CALL(*getter_, GetRemoteInfo("geo")).WillOnce(Return(Remote(0, "l")));
	EXPECT_CALL(*updater_, Update).WillOnce(Return(Installed(0)));
	EXPECT_CALL(*getter_, SetDatabaseStatus("geo", Installed(0)));
	update_.UpdateProject("geo");
}

TEST_F(UpdateProjectTest, StopsWithoutAnErrorWhenThereIsNoVolume) {
	EXPECT_CALL(*config_, GetCurVolume()).WillOnce(Return(""));
	EXPECT_CALL(*getter_, SetDatabaseStatus).Times(0);
	update_.UpdateProject("geo");
	EXPECT_THAT(Log(), ElementsAre(Line{LOG_WARNING, "update", "Update geo"},
	                       Line{LOG_WARNING, "update", "There is no volume, stopping updating."}));
}

TEST_F(UpdateProjectTest, LogsAndThrowsACopyOfAnyOfItsErrors) {
	EXPECT_CALL(*updater_, Update).WillOnce(Throw(UpdateError("broken", UpdateError::kFileNotExist)));
	EXPECT_CALL(*getter_, SetDatabaseStatus).Times(0);
	const UpdateError error = ErrorOf([this] { update_.UpdateProject("geo"); });
	EXPECT_STREQ(error.what(), "broken");
	EXPECT_EQ(error.code(), UpdateError::kFileNotExist);
	EXPECT_THAT(Log(),
	    ElementsAre(Line{LOG_WARNING, "update", "Update geo"}, Line{LOG_INFO, "update", "Update geo fail: broken"}));
	EXPECT_TRUE(IsFree(kAnyLock));
	EXPECT_TRUE(IsFree(kLock));
}

TEST_F(UpdateProjectTest, ReleasesTheLocksAfterItLoggedTheFailure) {
	EXPECT_CALL(*updater_, Update).WillOnce(Throw(UpdateError("broken")));
	MessageOf([this] { update_.UpdateProject("geo"); });
	const std::vector<Line> lines = test::Lines(log_);
	ASSERT_EQ(lines.size(), 6U);
	EXPECT_EQ(lines.at(3).text, "Update geo fail: broken");
	EXPECT_EQ(lines.at(4).text, std::string("Release lock on file: ") + kLock);
	EXPECT_EQ(lines.at(5).text, std::string("Release lock on file: ") + kAnyLock);
}

TEST_F(UpdateProjectTest, RefusesAnIdThatIsNotSupportedBeforeItLocks) {
	EXPECT_CALL(*config_, CheckSupported("geo")).WillOnce(Throw(UpdateError("Project geo not supported")));
	EXPECT_EQ(MessageOf([this] { update_.UpdateProject("geo"); }), "Project geo not supported");
	EXPECT_THAT(test::Lines(log_), ElementsAre(Line{LOG_INFO, "update", "Update geo fail: Project geo not supported"}));
}

TEST_F(UpdateProjectTest, WaitsForAnotherUpdate600Seconds) {
	for (const char* path : {kAnyLock, kLock}) {
		system_.polls = 0;
		const FileLock other(path, 0);
		const std::string message = std::string("Fail to lock ") + path;
		EXPECT_EQ(MessageOf([this] { update_.UpdateProject("geo"); }), message);
		EXPECT_EQ(system_.polls, 6000);
		EXPECT_EQ(Log().back(), (Line{LOG_INFO, "update", "Update geo fail: " + message}));
	}
	EXPECT_TRUE(IsFree(kAnyLock));
}

TEST_F(UpdateProjectTest, LogsThatTheServerCannotBeAsked) {
	EXPECT_CALL(*getter_, GetRemoteInfo("geo")).WillOnce(Throw(UpdateError("no network")));
	EXPECT_EQ(MessageOf([this] { update_.UpdateProject("geo"); }), "no network");
	EXPECT_THAT(Log(), ElementsAre(Line{LOG_INFO, "update", "Update geo fail: no network"}));
}

TEST_F(UpdateProjectTest, PassesOnOtherExceptionsUnloggedAndUnlocked) {
	EXPECT_CALL(*getter_, GetRemoteInfo("geo")).WillOnce(Throw(std::runtime_error("other")));
	EXPECT_THROW(update_.UpdateProject("geo"), std::runtime_error);
	EXPECT_THAT(Log(), IsEmpty());
	EXPECT_TRUE(IsFree(kAnyLock));
	EXPECT_TRUE(IsFree(kLock));
}

TEST_F(UpdateProjectTest, RecordsNothingThatIsNotOnTheDisk) {
	platform_.package_files = {{"f", "new"}};
	system_.Fail("syncfs", EIO);
	EXPECT_CALL(*getter_, SetDatabaseStatus).Times(0);
	const Update update(std::make_shared<Updater>(), getter_, config_);
	EXPECT_EQ(MessageOf([&] { update.UpdateProject("geo"); }), "Fail to sync " + Prefix() + ": Input/output error");
	EXPECT_TRUE(fs::exists(kMark));
	EXPECT_FALSE(fs::exists("/var/lib/data_update/geo/replacement")) << "its files may be on the disk, or not";
}

TEST_F(UpdateProjectTest, CountsAnUnfinishedReplacementAsNothingInstalled) {
	WriteFile(kMark, "");
	WriteFile("/var/lib/data_update/geo/version.json", "{}");
	ON_CALL(*getter_, GetRemoteInfo(_)).WillByDefault(Return(Remote(3, "l")));
	EXPECT_CALL(*updater_, Update("geo", Installed(-1), Remote(3, "l"), _, _, _, _)).WillOnce(Return(Installed(3)));
	update_.UpdateProject("geo");
	EXPECT_EQ(Log().front(), (Line{LOG_WARNING, "update", "The last replacement of 'geo' was not finished"}));
	WriteFile(kMark, "");
	EXPECT_CALL(*getter_, SetDatabaseStatus("geo", _)); // No file is known to be damaged, and yet:
	update_.FixProject("geo");
}

using FixProjectTest = UpdateTest;

TEST_F(FixProjectTest, ReinstallsADamagedDatabaseInThisOrderUnderBothLocks) {
	platform_.package_files = {{"f", "new"}};
	const InSequence order;
	EXPECT_CALL(*config_, CheckSupported("geo"));
	EXPECT_CALL(*getter_, GetDatabaseStatus("geo")).WillOnce([](const std::string&) {
		EXPECT_FALSE(IsFree(kAnyLock));
		EXPECT_FALSE(IsFree(kLock));
		return Installed(-1);
	});
	EXPECT_CALL(*getter_, GetRemoteInfo("geo"));
	EXPECT_CALL(*config_, GetDatabaseConfig("geo"));
	EXPECT_CALL(*database_, GetRootDirectory());
	EXPECT_CALL(*database_, GetInstallPrefix());
	EXPECT_CALL(*config_, GetCurVolume());
	EXPECT_CALL(*getter_, SetDatabaseStatus("geo", _)).WillOnce([&](const std::string&, const DatabaseStatus& status) {
		EXPECT_EQ(status.data_version, 10);
		EXPECT_EQ(status.last_fetch_time, 55);
		EXPECT_EQ(status.file_statuses.count(Prefix() + "/f"), 1U);
	});
	update_.FixProject("geo");
	EXPECT_THAT(Log(), ElementsAre(Line{LOG_WARNING, "update", "Fix geo completed and succeed"}));
	EXPECT_TRUE(IsFree(kAnyLock));
	EXPECT_TRUE(IsFree(kLock));
}

TEST_F(FixProjectTest, LeavesADatabaseWhoseFilesAreRight) {
	EXPECT_CALL(*getter_, SetDatabaseStatus).Times(0);
	update_.FixProject("geo"); // No files are recorded, so none is wrong.
	EXPECT_THAT(Log(), IsEmpty());
	EXPECT_THAT(LinesOf(log_, "updater.cpp"), IsEmpty());
	EXPECT_THAT(LinesOf(log_, "file_lock.cpp"), testing::SizeIs(4));
}

TEST_F(FixProjectTest, GoesOnWithoutAVolume) {
	EXPECT_CALL(*getter_, GetDatabaseStatus("geo")).WillOnce(Return(Installed(-1)));
	EXPECT_CALL(*config_, GetCurVolume()).WillOnce(Return(""));
	platform_.mkdir_works = false;
	EXPECT_EQ(MessageOf([this] { update_.FixProject("geo"); }), "Fail to create dir /@tmp/data_update");
}

TEST_F(FixProjectTest, LogsAndThrowsACopyOfAnyOfItsErrors) {
	EXPECT_CALL(*getter_, GetRemoteInfo("geo")).WillOnce(Throw(UpdateError("broken", UpdateError::kFileNotExist)));
	EXPECT_CALL(*getter_, SetDatabaseStatus).Times(0);
	const UpdateError error = ErrorOf([this] { update_.FixProject("geo"); });
	EXPECT_STREQ(error.what(), "broken");
	EXPECT_EQ(error.code(), UpdateError::kFileNotExist);
	EXPECT_THAT(Log(), ElementsAre(Line{LOG_INFO, "update", "Fix geo fail: broken"}));
	EXPECT_TRUE(IsFree(kAnyLock));
}

TEST_F(FixProjectTest, RefusesAnIdThatIsNotSupported) {
	EXPECT_CALL(*config_, CheckSupported("geo")).WillOnce(Throw(UpdateError("Project geo not supported")));
	EXPECT_EQ(MessageOf([this] { update_.FixProject("geo"); }), "Project geo not supported");
	EXPECT_THAT(test::Lines(log_), ElementsAre(Line{LOG_INFO, "update", "Fix geo fail: Project geo not supported"}));
}

TEST_F(FixProjectTest, WaitsForAnUpdate600Seconds) {
	for (const char* path : {kAnyLock, kLock}) {
		system_.polls = 0;
		const FileLock other(path, 0);
		EXPECT_EQ(MessageOf([this] { update_.FixProject("geo"); }), std::string("Fail to lock ") + path);
		EXPECT_EQ(system_.polls, 6000);
	}
}

TEST_F(FixProjectTest, RecordsNothingThatIsNotOnTheDisk) {
	EXPECT_CALL(*getter_, GetDatabaseStatus("geo")).WillOnce(Return(Installed(-1)));
	system_.Fail("syncfs", EIO);
	EXPECT_CALL(*getter_, SetDatabaseStatus).Times(0);
	EXPECT_THAT(MessageOf([this] { update_.FixProject("geo"); }), StartsWith("Fail to sync "));
}

class ForceInstallProjectTest : public UpdateTest {
protected:
	/** Installs a version, the server offering 10, and tells the link and the version recorded. */
	std::pair<std::string, int> Install(int version) {
		std::string link;
		int recorded = -100;
		platform_.execl = [&](const std::string&, unsigned int, const test::FakePlatform::Arguments& arguments) {
			link = arguments.at(1);
			WriteFile(arguments.at(3), "package");
			return 0;
		};
		EXPECT_CALL(*getter_, SetDatabaseStatus("geo", _))
		    .WillOnce([&](const std::string&, const DatabaseStatus& status) {
			    recorded = status.data_version;
			    EXPECT_EQ(status.last_fetch_time, 55);
			    EXPECT_THAT(status.file_statuses, IsEmpty());
		    });
		update_.ForceInstall("geo", version);
		return {link, recorded};
	}
};

TEST_F(ForceInstallProjectTest, InstallsTheServersVersionForZero) {
	EXPECT_THAT(Install(0), testing::Pair("http://h/10/p_10", 10));
}

TEST_F(ForceInstallProjectTest, InstallsAGivenVersion) {
	EXPECT_THAT(Install(7), testing::Pair("http://h/7/p_7", 7));
	EXPECT_THAT(Install(10), testing::Pair("http://h/10/p_10", 10));
	EXPECT_THAT(Install(1010), testing::Pair("http://h/1010/p_1010", 1010)); // What was inserted stays.
}

TEST_F(ForceInstallProjectTest, CountsNegativeVersionsBackFromTheServers) {
	EXPECT_THAT(Install(-2), testing::Pair("http://h/8/p_8", 8));
	EXPECT_THAT(Install(-11), testing::Pair("http://h/-1/p_-1", -1));
}

TEST_F(ForceInstallProjectTest, RewritesTheVersionWhereverItStandsInTheLink) {
	ON_CALL(*getter_, GetRemoteInfo(_)).WillByDefault(Return(Remote(12, "http://h12/112/db_12.pkg")));
	EXPECT_THAT(Install(7), testing::Pair("http://h7/17/db_7.pkg", 7));
}

TEST_F(ForceInstallProjectTest, AsksAndRecordsInThisOrderUnderBothLocks) {
	const InSequence order;
	EXPECT_CALL(*config_, CheckSupported).Times(0);
	EXPECT_CALL(*database_, GetRootDirectory()).Times(0);
	EXPECT_CALL(*getter_, GetRemoteInfo("geo")).WillOnce([&](const std::string&) {
		EXPECT_FALSE(IsFree(kAnyLock));
		EXPECT_FALSE(IsFree(kLock));
		return Remote(10, "l");
	});
	EXPECT_CALL(*config_, GetDatabaseConfig("geo"));
	EXPECT_CALL(*database_, GetInstallPrefix());
	EXPECT_CALL(*config_, GetCurVolume());
	EXPECT_CALL(*database_, GetInstallPrefix());
	EXPECT_CALL(*getter_, SetDatabaseStatus("geo", _)).WillOnce([&](const std::string&, const DatabaseStatus&) {
		EXPECT_FALSE(IsFree(kAnyLock));
		EXPECT_TRUE(fs::exists(directory_ / "volume/@tmp/data_update")); // Cleaned up afterwards.
	});
	update_.ForceInstall("geo", 0);
	EXPECT_FALSE(fs::exists(directory_ / "volume/@tmp/data_update"));
	EXPECT_TRUE(IsFree(kAnyLock));
	EXPECT_TRUE(IsFree(kLock));
}

TEST_F(ForceInstallProjectTest, RunsNoHooksAndKeepsOtherFiles) {
	WriteFile(Prefix() + "/kept", "old");
	platform_.package_files = {{"new", "new"}};
	Install(0);
	EXPECT_EQ(platform_.CountEvents("hook"), 0U);
	EXPECT_TRUE(fs::exists(Prefix() + "/kept"));
	EXPECT_TRUE(fs::exists(Prefix() + "/new"));
}

TEST_F(ForceInstallProjectTest, PassesOnErrorsUnloggedAndUnlocked) {
	platform_.archive_open_works = false;
	EXPECT_CALL(*getter_, SetDatabaseStatus).Times(0);
	EXPECT_THAT(MessageOf([this] { update_.ForceInstall("geo", 0); }), StartsWith("Fail to force install: "));
	EXPECT_THAT(Log(), IsEmpty());
	EXPECT_TRUE(IsFree(kAnyLock));
	EXPECT_TRUE(IsFree(kLock));
}

TEST_F(ForceInstallProjectTest, RecordsNothingThatIsNotOnTheDisk) {
	system_.Fail("syncfs", EIO);
	EXPECT_CALL(*getter_, SetDatabaseStatus).Times(0);
	EXPECT_THAT(MessageOf([this] { update_.ForceInstall("geo", 0); }), StartsWith("Fail to sync "));
}

TEST_F(ForceInstallProjectTest, WaitsForAnUpdate600Seconds) {
	const FileLock other(kLock, 0);
	EXPECT_EQ(MessageOf([this] { update_.ForceInstall("geo", 0); }), std::string("Fail to lock ") + kLock);
	EXPECT_EQ(system_.polls, 6000);
}

class AllProjectsTest : public UpdateTest {
protected:
	AllProjectsTest() {
		ON_CALL(*config_, GetDatabaseIDs()).WillByDefault(Return(std::vector<std::string>{"a", "b", "c"}));
		ON_CALL(*config_, GetDatabaseConfig(_)).WillByDefault([this](const std::string& id) {
			auto database = std::make_shared<NiceMock<test::MockDatabaseConfig>>();
			ON_CALL(*database, GetScheduled()).WillByDefault(Return(scheduled_.find(id) != std::string::npos));
			return database;
		});
	}
	std::string Operate(const std::string& failing = "") const {
		std::string visited;
		try {
			update_.OperateAllProjects([&](const std::string& id) {
				visited += id;
				if (id == failing) {
					throw UpdateError("broken", UpdateError::kFileNotExist);
				}
			});
		} catch (const UpdateError& error) {
			visited += std::string(" ") + error.what() + " " + std::to_string(error.code());
		}
		return visited;
	}

	std::string scheduled_ = "abc";
};

TEST_F(AllProjectsTest, OperatesOnScheduledDatabasesInOrder) {
	EXPECT_EQ(Operate(), "abc");
	scheduled_ = "b";
	EXPECT_EQ(Operate(), "b");
	EXPECT_CALL(*config_, GetDatabaseIDs()).WillOnce(Return(std::vector<std::string>{}));
	EXPECT_CALL(*config_, GetCurVolume()).Times(0);
	EXPECT_EQ(Operate(), "");
}

TEST_F(AllProjectsTest, StopsAtTheFirstScheduledDatabaseWithoutAVolume) {
	scheduled_ = "bc";
	EXPECT_CALL(*config_, GetCurVolume()).Times(2).WillRepeatedly(Return(""));
	EXPECT_EQ(Operate(), "");
	EXPECT_THAT(test::Lines(log_), ElementsAre(Line{LOG_WARNING, "update", "There is no volume, stopping operation."}));
}

TEST_F(AllProjectsTest, IsSilentWithoutAVolumeWhenNothingIsScheduled) {
	scheduled_ = "";
	ON_CALL(*config_, GetCurVolume()).WillByDefault(Return(""));
	EXPECT_EQ(Operate(), "");
	EXPECT_THAT(test::Lines(log_), IsEmpty());
}

TEST_F(AllProjectsTest, StopsAtTheFirstFailureAndNamesTheDatabase) {
	EXPECT_EQ(Operate("b"), "ab Fail on project 'b': broken 0");
}

TEST_F(AllProjectsTest, NamesTheDatabaseWhoseConfigurationCannotBeRead) {
	EXPECT_CALL(*config_, GetCurVolume()).WillOnce(Throw(UpdateError("unreadable")));
	EXPECT_EQ(Operate(), " Fail on project 'a': unreadable 0");
}

TEST_F(AllProjectsTest, PassesOnOtherExceptions) {
	EXPECT_THROW(update_.OperateAllProjects({}), std::bad_function_call);
	EXPECT_CALL(*config_, GetDatabaseIDs()).WillOnce(Throw(UpdateError("no list")));
	EXPECT_EQ(Operate(), " no list 0");
}

TEST_F(AllProjectsTest, UpdatesAndFixesThroughTheVirtualOperations) {
	class Double : public Update {
	public:
		using Update::Update;
		void UpdateProject(const std::string& id) const override { calls += "update " + id + ";"; }
		void FixProject(const std::string& id) const override { calls += "fix " + id + ";"; }
		mutable std::string calls;
	};
	scheduled_ = "ac";
	const Double update(updater_, getter_, config_);
	update.UpdateAllProjects();
	EXPECT_EQ(update.calls, "update a;update c;");
	update.calls.clear();
	update.FixAllProjects();
	EXPECT_EQ(update.calls, "fix a;fix c;");
}

TEST_F(AllProjectsTest, KeepsEarlierDatabasesUpdatedWhenOneFails) {
	EXPECT_CALL(*updater_, Update("a", _, _, _, _, _, _)).WillOnce(Return(Installed(10)));
	EXPECT_CALL(*updater_, Update("b", _, _, _, _, _, _)).WillOnce(Throw(UpdateError("broken")));
	EXPECT_CALL(*getter_, SetDatabaseStatus("a", Installed(10)));
	EXPECT_EQ(MessageOf([this] { update_.UpdateAllProjects(); }), "Fail on project 'b': broken");
}

} // namespace
} // namespace tarn::dataupdate
