#include "dataupdate/file_lock.h"
#include "dataupdate/installation.h"
#include "host/library/failure.h"
#include "host/library/run_record.h"
#include "private_root.h"
#include "syslog_capture.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>

#include <syslog.h>

#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tarn::ctl {
namespace {

using dataupdate::DatabaseStatus;
using dataupdate::UpdateError;
using testing::_;
using testing::HasSubstr;
using testing::Return;
using testing::Throw;

ExitCode CodeOf(const std::function<void()>& operation) {
	try {
		operation();
	} catch (const CommandError& error) {
		return error.Code();
	}
	return kDone;
}

/** The library's update takes its locks where it always does. */
class UpdateCommandTest : public test::FixedPathsTest {
protected:
	ExitCode Run(std::vector<std::string> ids, bool no_wait = false) {
		Options options;
		options.ids = std::move(ids);
		options.no_wait = no_wait;
		return kUpdateCommand.run(doubles_.services, options);
	}
	/** Lets updates of a database succeed, and the record follow them. */
	void LetSucceed(const std::string& id) {
		ON_CALL(*doubles_.updater, Update(id, _, _, _, _, _, _)).WillByDefault([this, id](auto&&...) {
			doubles_.Install(5, id);
			DatabaseStatus status;
			status.data_version = 5;
			return status;
		});
	}
	/** What a run that was killed while it replaced files leaves. */
	static void LeaveUnfinished(const std::string& id) {
		test::WriteFile("/var/lib/data_update/" + id + "/version.json", "{}");
		test::WriteFile("/var/lib/data_update/" + id + "/replacing", "");
	}

	test::Doubles doubles_;
};

TEST_F(UpdateCommandTest, SaysWhatBecameOfEachDatabase) {
	doubles_.Install(5);
	doubles_.Install(-1, "geo");
	LetSucceed("geo");
	EXPECT_EQ(Run({"geo", "zip"}), kDone);
	EXPECT_EQ(doubles_.out.str(), "geo: installed version 5\nzip: up to date, version 5\n");
	doubles_.Install(3, "geo");
	doubles_.out.str("");
	EXPECT_EQ(Run({}), kDone);
	EXPECT_EQ(doubles_.out.str(), "geo: updated from version 3 to version 5\nzip: up to date, version 5\n");
}

TEST_F(UpdateCommandTest, LogsWhatAMissingDiffMeansBeforeTheLibraryComplainsOfIt) {
	LetSucceed("geo");
	ON_CALL(*doubles_.info, GetDiffInfos("geo"))
	    .WillByDefault(Return(std::map<int, dataupdate::DiffInfo>{{4, {"http://x/4", 1}}, {5, {"http://x/5", 1}}}));
	const auto count = [this](int installed, const std::vector<std::string>& texts) {
		const test::SyslogCapture log;
		doubles_.Install(installed, "geo");
		EXPECT_EQ(Run({"geo"}), kDone);
		return log.Count(LOG_NOTICE, texts);
	};
	const std::string meaning = "\"No sufficient diff patched\" says only this";
	EXPECT_EQ(count(-1, {"geo is not installed", meaning}), 1U);
	EXPECT_EQ(count(2, {"no diff package from version 2 to 3 of geo, on the way from 2 to 5", meaning}), 1U);
	EXPECT_EQ(count(3, {meaning}), 0U);
}

TEST_F(UpdateCommandTest, FollowsAChainToTheLastVersion) {
	constexpr int kLast = std::numeric_limits<int>::max();
	doubles_.Install(kLast - 1, "geo");
	ON_CALL(*doubles_.info, GetRemoteInfo("geo"))
	    .WillByDefault(Return(dataupdate::RemoteInfo(kLast, 0, false, "http://x/")));
	ON_CALL(*doubles_.info, GetDiffInfos("geo"))
	    .WillByDefault(Return(std::map<int, dataupdate::DiffInfo>{{kLast, {"http://x/d", 1}}}));
	EXPECT_CALL(*doubles_.updater, Update("geo", _, _, _, _, _, _)).WillOnce([this](auto&&...) {
		doubles_.Install(kLast, "geo");
		DatabaseStatus status;
		status.data_version = kLast;
		return status;
	});
	EXPECT_EQ(Run({"geo"}), kDone);
	EXPECT_EQ(doubles_.out.str(), "geo: updated from version 2147483646 to version 2147483647\n");
}

TEST_F(UpdateCommandTest, TriesAllNamedDatabasesAndEndsWithTheFirstFailure) {
	doubles_.Install(4);
	ON_CALL(*doubles_.updater, Update("geo", _, _, _, _, _, _))
	    .WillByDefault(Throw(UpdateError("Disk space is too low")));
	LetSucceed("zip");
	EXPECT_EQ(Run({"nope", "geo", "zip"}), kUnsupported);
	EXPECT_EQ(doubles_.out.str(), "zip: updated from version 4 to version 5\n");
	EXPECT_THAT(doubles_.err.str(), HasSubstr("tarndbudctl: geo: Disk space is too low; "));
	EXPECT_EQ(Run({"geo", "nope"}), kFailed);
}

TEST_F(UpdateCommandTest, StopsAtTheFirstScheduledDatabaseThatFails) {
	doubles_.Install(4);
	EXPECT_CALL(*doubles_.updater, Update("geo", _, _, _, _, _, _)).WillOnce(Throw(UpdateError("Bad luck")));
	EXPECT_CALL(*doubles_.updater, Update("zip", _, _, _, _, _, _)).Times(0);
	EXPECT_THROW(Run({}), UpdateError);
}

TEST_F(UpdateCommandTest, AsksNoServerAgainAboutWhatIsUpToDate) {
	doubles_.Install(5);
	EXPECT_CALL(*doubles_.info, GetRemoteInfo).WillOnce(Return(dataupdate::RemoteInfo(5, 0, false, "http://x/")));
	EXPECT_EQ(Run({"geo"}), kDone);
}

TEST_F(UpdateCommandTest, DoesNotTakeALaterVersionThanTheServersForUpToDate) {
	doubles_.Install(11, "geo");
	doubles_.Install(4, "zip");
	LetSucceed("zip");
	EXPECT_EQ(Run({}), kAboveOffered) << "the others are updated all the same";
	EXPECT_EQ(doubles_.out.str(),
	    "geo: installed 11 is above the offered 5; nothing was changed. If the publisher took the later version back, "
	    "\"tarndbudctl force-install geo 0\" installs the offered one\n"
	    "zip: updated from version 4 to version 5\n");
	EXPECT_EQ(ReadRunRecord("geo")->exit_status, kAboveOffered);
	EXPECT_EQ(ReadRunRecord("zip")->exit_status, kDone);
	EXPECT_EQ(Run({"zip"}), kDone);
	EXPECT_EQ(Run({"zip", "geo"}), kAboveOffered);
	Options options;
	options.ids = {"geo"};
	options.json = true;
	doubles_.out.str("");
	EXPECT_EQ(kUpdateCommand.run(doubles_.services, options), kAboveOffered);
	EXPECT_EQ(doubles_.out.str(),
	    "[\n\t{\n\t\t\"exit_status\" : 5,\n\t\t\"id\" : \"geo\",\n\t\t\"offered_version\" : 5,"
	    "\n\t\t\"result\" : \"above offered\",\n\t\t\"version\" : 11\n\t}\n]\n");
}

TEST_F(UpdateCommandTest, DoesNotTakeAMissingVolumeForSuccess) {
	doubles_.Install(4);
	ON_CALL(*doubles_.config, GetCurVolume).WillByDefault(Return(""));
	EXPECT_CALL(*doubles_.updater, Update).Times(0);
	EXPECT_EQ(Run({"geo"}), kFailed);
	EXPECT_THAT(doubles_.err.str(), HasSubstr("geo: There is no storage volume"));
	EXPECT_EQ(CodeOf([&] { Run({}); }), kFailed);
	doubles_.Install(5);
	EXPECT_EQ(Run({"geo"}), kDone) << "what is up to date needs no volume";
}

TEST_F(UpdateCommandTest, DoesNotTakeAnUpdateThatStoppedForSuccess) {
	doubles_.Install(4);
	// The library alone, between two looks of the command, finds none.
	EXPECT_CALL(*doubles_.config, GetCurVolume)
	    .WillOnce(testing::Return("/volume1"))
	    .WillOnce(testing::Return("/volume1"))
	    .WillOnce(testing::Return("/volume1"))
	    .WillOnce(testing::Return("/volume1"))
	    .WillOnce(testing::Return("/volume1"))
	    .WillOnce(testing::Return("/volume1"))
	    .WillOnce(testing::Return(""))
	    .WillRepeatedly(testing::Return("/volume1"));
	EXPECT_CALL(*doubles_.updater, Update).Times(0);
	EXPECT_EQ(Run({"geo"}), kFailed);
	EXPECT_THAT(doubles_.err.str(), HasSubstr("geo was not updated, though version 5 is offered"));
}

TEST_F(UpdateCommandTest, WritesNothingBelowTheMountPointOfAVanishedVolume) {
	doubles_.Install(4);
	doubles_.is_available = false;
	EXPECT_CALL(*doubles_.updater, Update).Times(0);
	EXPECT_EQ(Run({"geo"}), kFailed);
	EXPECT_THAT(doubles_.err.str(), HasSubstr("geo: The volume /volume1 is in use, but is not available"));
	EXPECT_EQ(CodeOf([&] { Run({}); }), kFailed);
}

TEST_F(UpdateCommandTest, LooksForTheVolumeAgainOnceItHasTheLocks) {
	doubles_.Install(4);
	ON_CALL(*doubles_.info, GetRemoteInfo).WillByDefault([this](const std::string&) {
		EXPECT_THROW(dataupdate::FileLock("/run/data_update/update_geo.lock", 0), UpdateError);
		doubles_.is_available = false;
		return dataupdate::RemoteInfo(5, 0, false, "http://x/");
	});
	EXPECT_CALL(*doubles_.updater, Update).Times(0);
	EXPECT_EQ(Run({"geo"}), kFailed);
	EXPECT_THAT(doubles_.err.str(), HasSubstr("geo: The volume /volume1 is in use, but is not available"));
}

TEST_F(UpdateCommandTest, SaysThatItReinstalledWhatWasUnfinished) {
	doubles_.Install(5);
	LeaveUnfinished("geo");
	LetSucceed("geo");
	EXPECT_EQ(Run({"geo"}), kDone);
	EXPECT_EQ(doubles_.out.str(), "geo: reinstalled version 5\n");
	doubles_.out.str("");
	Options options;
	options.ids = {"geo"};
	options.json = true;
	LeaveUnfinished("geo"); // The first reinstallation has ended that.
	EXPECT_EQ(kUpdateCommand.run(doubles_.services, options), kDone);
	EXPECT_THAT(doubles_.out.str(), HasSubstr("\"result\" : \"reinstalled\""));
	EXPECT_THAT(doubles_.out.str(), testing::Not(HasSubstr("previous_version")));
}

TEST_F(UpdateCommandTest, SaysThatAnUnfinishedDatabaseWentBack) {
	doubles_.Install(7);
	LeaveUnfinished("geo");
	LetSucceed("geo");
	const test::SyslogCapture log;
	EXPECT_EQ(Run({"geo"}), kDone);
	EXPECT_EQ(doubles_.out.str(),
	    "geo: reinstalled version 5, which is older than version 7, which was installed or half installed\n");
	EXPECT_EQ(log.Count(LOG_WARNING, {"geo went back to version 5, though version 7 was"}), 1U);
	doubles_.out.str("");
	doubles_.Install(5, "geo");
	LeaveUnfinished("geo");
	test::WriteFile("/var/lib/data_update/geo/replacement", std::string("of an earlier start\0"
	                                                                    "6\0",
	                                                            22));
	Options options;
	options.ids = {"geo"};
	options.json = true;
	EXPECT_EQ(kUpdateCommand.run(doubles_.services, options), kDone);
	EXPECT_EQ(doubles_.out.str(), "[\n\t{\n\t\t\"id\" : \"geo\",\n\t\t\"previous_version\" : 6,\n\t\t\"result\" : "
	                              "\"reinstalled\",\n\t\t\"version\" : 5\n\t}\n]\n");
}

/** A replacement of "zip" by version 5 was killed, and is ready to be finished. */
class FinishingTest : public UpdateCommandTest {
protected:
	void SetUp() override {
		UpdateCommandTest::SetUp();
		if (IsSkipped()) {
			return;
		}
		doubles_.Install(4);
		LetSucceed("geo");
		LeaveUnfinished("zip");
		doubles_.services.find_prepared = [](const std::string& id, const std::string&, const std::string&) {
			return id == "zip" && dataupdate::MayBeAMixture(id) ? std::optional(5) : std::nullopt;
		};
		doubles_.services.finish = [this](const std::string& id, const std::string&, const std::string&) {
			events_.push_back("finish " + id);
			doubles_.Install(5, id);
			dataupdate::UpdateResult result;
			result.data_version = 5;
			return result;
		};
		ON_CALL(*doubles_.info, GetRemoteInfo).WillByDefault([this](const std::string& id) {
			events_.push_back("ask for " + id);
			return dataupdate::RemoteInfo(5, 0, false, "http://x/");
		});
	}

	std::vector<std::string> events_;
};

TEST_F(FinishingTest, ComesBeforeTheUpdateOfAnotherDatabase) {
	EXPECT_EQ(Run({"geo"}), kDone);
	EXPECT_EQ(doubles_.out.str(),
	    "zip: finished the update to version 5 that was killed\ngeo: updated from version 4 to version 5\n");
	ASSERT_GE(events_.size(), 2U);
	EXPECT_EQ(events_[0], "finish zip");
	EXPECT_EQ(events_[1], "ask for geo");
	EXPECT_FALSE(ReadRunRecord("zip")) << "no operation on it was asked for";
}

TEST_F(FinishingTest, IsToldThoughTheServerDoesNotAnswer) {
	ON_CALL(*doubles_.info, GetRemoteInfo).WillByDefault(Throw(UpdateError("Fail to wget url: http://x/")));
	EXPECT_THROW(Run({}), UpdateError);
	EXPECT_EQ(doubles_.out.str(), "zip: finished the update to version 5 that was killed\n");
}

TEST_F(FinishingTest, WaitsForALaterTryWhenTheDatabaseItselfIsLocked) {
	doubles_.services.finish = [](auto&&...) -> dataupdate::UpdateResult {
		throw UpdateError("Fail to diff update: Fail to lock /run/data_update/using_zip.lock");
	};
	EXPECT_EQ(Run({"zip"}), kLocked);
	EXPECT_EQ(doubles_.out.str(), "");
	EXPECT_THAT(doubles_.err.str(), HasSubstr("zip: The replacement of its files that was killed has to be finished "
	                                          "first, and a lock was not obtained in time (Fail to diff update: Fail "
	                                          "to lock /run/data_update/using_zip.lock); try later."));
	EXPECT_EQ(events_, std::vector<std::string>());
	EXPECT_EQ(ReadRunRecord("zip")->exit_status, kLocked);
}

TEST_F(FinishingTest, DoesNotHoldUpAnotherDatabaseByALock) {
	doubles_.services.finish = [](auto&&...) -> dataupdate::UpdateResult {
		throw UpdateError("Fail to diff update: Fail to lock /run/data_update/using_zip.lock");
	};
	EXPECT_EQ(Run({"geo"}), kDone);
	EXPECT_EQ(doubles_.out.str(), "geo: updated from version 4 to version 5\n");
}

TEST_F(FinishingTest, StopsNothingWhenItFailsForGood) {
	doubles_.services.finish = [](auto&&...) -> dataupdate::UpdateResult { throw UpdateError("no space"); };
	const test::SyslogCapture log;
	EXPECT_EQ(Run({"geo"}), kDone);
	EXPECT_EQ(doubles_.out.str(), "geo: updated from version 4 to version 5\n");
	EXPECT_EQ(log.Count(LOG_WARNING, {"'zip' that was killed could not be finished: no space"}), 1U);
}

TEST_F(FinishingTest, GoesNoFurtherThanAHold) {
	test::WriteFile("/var/lib/data_update/zip/hold.json", "{\"up_to\": 4}");
	EXPECT_EQ(Run({"geo"}), kDone);
	EXPECT_EQ(doubles_.out.str(), "geo: updated from version 4 to version 5\n");
}

TEST_F(UpdateCommandTest, DoesNotTakeWhatIsUnfinishedForUpToDateWithoutAVolume) {
	doubles_.Install(5);
	LeaveUnfinished("geo");
	ON_CALL(*doubles_.config, GetCurVolume).WillByDefault(Return(""));
	EXPECT_EQ(Run({"geo"}), kFailed);
	EXPECT_EQ(doubles_.out.str(), "");
	EXPECT_THAT(doubles_.err.str(), HasSubstr("geo: There is no storage volume"));
	EXPECT_EQ(ReadRunRecord("geo")->exit_status, kFailed);
}

TEST_F(UpdateCommandTest, HasNothingToDoWhenNothingIsScheduled) {
	ON_CALL(*doubles_.database, GetScheduled).WillByDefault(Return(false));
	ON_CALL(*doubles_.config, GetCurVolume).WillByDefault(Return(""));
	EXPECT_CALL(*doubles_.info, GetRemoteInfo).Times(0);
	EXPECT_EQ(Run({}), kDone);
	EXPECT_EQ(doubles_.out.str(), "No database is scheduled.\n");
}

TEST_F(UpdateCommandTest, DoesNotWaitForAnotherUpdateWhenToldSo) {
	ON_CALL(*doubles_.checker, IsAnyUpdating).WillByDefault(Return(true));
	EXPECT_CALL(*doubles_.info, GetRemoteInfo).Times(0);
	EXPECT_EQ(CodeOf([&] { Run({"geo"}, true); }), kLocked);
}

} // namespace
} // namespace tarn::ctl
