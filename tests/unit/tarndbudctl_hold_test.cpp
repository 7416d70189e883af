#include "dataupdate/file_lock.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "host/library/hold.h"
#include "host/library/operation.h"
#include "host/library/run_record.h"
#include "private_root.h"
#include "syslog_capture.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <syslog.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

namespace tarn::ctl {
namespace {

using test::WriteFile;
using testing::HasSubstr;
using testing::Return;

class HoldTest : public test::FixedPathsTest {};

TEST_F(HoldTest, IsReadBackAsItWasSet) {
	EXPECT_FALSE(ReadHold("geo"));
	SetHold("geo", std::nullopt);
	EXPECT_EQ(ReadHold("geo").value().up_to, std::nullopt);
	EXPECT_FALSE(ReadHold("geo").value().Allows(0));
	SetHold("geo", 7);
	EXPECT_EQ(ReadHold("geo").value().up_to, 7);
	EXPECT_TRUE(ReadHold("geo").value().Allows(7));
	EXPECT_FALSE(ReadHold("geo").value().Allows(8));
	EXPECT_FALSE(ReadHold("zip"));
	EXPECT_TRUE(EndHold("geo"));
	EXPECT_FALSE(ReadHold("geo"));
	EXPECT_FALSE(EndHold("geo"));
}

TEST_F(HoldTest, HoldsWhenItCannotBeUnderstood) {
	for (const char* content : {"", "{", "7", "[]", "{}", R"({"up_to":"7"})", R"({"up_to":-1})", R"({"up_to":1.5})",
	         R"({"up_to":4294967296})", R"({"up_to":7} {)"}) {
		WriteFile(HoldPath("geo"), content);
		const std::optional<Hold> hold = ReadHold("geo");
		ASSERT_TRUE(hold) << content;
		EXPECT_FALSE(hold->Allows(0)) << content;
		EXPECT_NE(hold->problem, "") << content;
		EXPECT_THAT(HoldProblem("geo", *hold), HasSubstr(HoldPath("geo"))) << content;
	}
	WriteFile(HoldPath("geo"), std::string(5000, ' ') + R"({"up_to":7})");
	EXPECT_NE(ReadHold("geo").value().problem, "") << "nothing writes so much";
	std::filesystem::remove(HoldPath("geo"));
	std::filesystem::create_symlink("/nowhere", HoldPath("geo"));
	EXPECT_NE(ReadHold("geo").value().problem, "");
	EXPECT_TRUE(EndHold("geo"));
}

/** Two databases at version 3, and the server at 5. */
class HoldCommandTest : public test::FixedPathsTest {
protected:
	HoldCommandTest() { doubles_.Install(3); }

	ExitCode Update(std::vector<std::string> ids) {
		Options options;
		options.ids = std::move(ids);
		options.json = true;
		doubles_.out.str("");
		return kUpdateCommand.run(doubles_.services, options);
	}
	ExitCode Run(const Command& command, std::optional<int> up_to = std::nullopt) {
		Options options;
		options.id = "geo";
		options.up_to = up_to;
		options.timeout_seconds = 0;
		return command.run(doubles_.services, options);
	}
	Json::Value Printed() const {
		Json::Value value;
		std::istringstream(doubles_.out.str()) >> value;
		return value;
	}
	void ExpectUpdates(int count) {
		EXPECT_CALL(*doubles_.updater, Update).Times(count);
		ON_CALL(*doubles_.updater, Update).WillByDefault([this](const std::string& id, auto&&...) {
			doubles_.Install(5, id);
			dataupdate::DatabaseStatus status;
			status.data_version = 5;
			return status;
		});
	}

	test::Doubles doubles_;
};

TEST_F(HoldCommandTest, LeavesAHeldDatabaseAloneWithoutAskingTheServer) {
	ExpectUpdates(0);
	EXPECT_CALL(*doubles_.info, GetRemoteInfo).Times(0);
	EXPECT_EQ(Run(kHoldCommand), kDone);
	EXPECT_EQ(doubles_.out.str(), "geo: held\n");
	EXPECT_EQ(Update({"geo"}), kHeld);
	EXPECT_EQ(Printed()[0]["result"], "held");
	EXPECT_EQ(Printed()[0]["version"], 3);
	EXPECT_EQ(Printed()[0]["exit_status"], kHeld);
	EXPECT_FALSE(ReadRunRecord("geo")) << "nothing ran";
}

TEST_F(HoldCommandTest, IsNoFailureOfAScheduledRunAndKeepsNoOtherDatabaseBack) {
	ExpectUpdates(1);
	EXPECT_EQ(Run(kHoldCommand), kDone);
	const test::SyslogCapture log;
	EXPECT_EQ(Update({}), kDone);
	EXPECT_EQ(Printed()[0]["result"], "held");
	EXPECT_EQ(Printed()[1]["result"], "updated");
	EXPECT_EQ(doubles_.err.str(), "");
	EXPECT_EQ(log.Count(LOG_NOTICE, {"geo is held, so version 3 stays installed."}), 1U);
}

TEST_F(HoldCommandTest, LetsUpdatesComeUpToTheVersionAndNoFurther) {
	ExpectUpdates(1);
	EXPECT_EQ(Run(kHoldCommand, 4), kDone);
	EXPECT_EQ(Update({"geo"}), kHeld);
	EXPECT_EQ(Printed()[0]["held_up_to"], 4);
	EXPECT_EQ(Printed()[0]["offered_version"], 5);
	EXPECT_EQ(ReadRunRecord("geo").value().exit_status, kDone) << "nothing was to be done";
	EXPECT_EQ(Run(kHoldCommand, 5), kDone);
	EXPECT_EQ(Update({"geo"}), kDone);
	EXPECT_EQ(Update({"geo"}), kDone);
	EXPECT_EQ(Printed()[0]["result"], "up to date");
}

TEST_F(HoldCommandTest, SaysThatALaterInstalledVersionStays) {
	EXPECT_EQ(Run(kHoldCommand, 2), kDone);
	EXPECT_EQ(doubles_.out.str(), "geo: held at most at version 2; the later version 3 is installed and stays, for a "
	                              "hold takes nothing back\n");
	for (const int installed : {3, -1}) {
		doubles_.out.str("");
		doubles_.Install(installed);
		EXPECT_EQ(Run(kHoldCommand, 3), kDone);
		EXPECT_EQ(doubles_.out.str(), "geo: held at most at version 3\n");
	}
	ON_CALL(*doubles_.info, GetDatabaseStatus).WillByDefault(testing::Throw(dataupdate::UpdateError("torn")));
	EXPECT_EQ(Run(kHoldCommand, 1), kDone);
	EXPECT_EQ(ReadHold("geo").value().up_to, 1) << "whatever the record is like";
}

TEST_F(HoldCommandTest, NamesADamagedHoldInScheduledRunsAsWell) {
	ExpectUpdates(1);
	WriteFile(HoldPath("geo"), "{");
	for (const std::vector<std::string>& ids : {std::vector<std::string>{"geo"}, std::vector<std::string>{}}) {
		EXPECT_EQ(Update(ids), kHeld);
		EXPECT_THAT(doubles_.err.str(), HasSubstr("The hold " + HoldPath("geo") +
		                                          " cannot be understood (it is no "
		                                          "JSON document), so geo does not change"));
		doubles_.err.str("");
	}
	EXPECT_EQ(Run(kUnholdCommand), kDone);
	EXPECT_FALSE(ReadHold("geo"));
}

TEST_F(HoldCommandTest, WaitsForARunningUpdate) {
	const dataupdate::FileLock update(dataupdate::UpdateLockPath("geo"), 0);
	EXPECT_THROW((void)Run(kHoldCommand), dataupdate::UpdateError);
	EXPECT_FALSE(ReadHold("geo"));
}

TEST_F(HoldCommandTest, StopsAnUpdateThatHadLookedForAHoldBefore) {
	ExpectUpdates(0);
	ON_CALL(*doubles_.info, GetRemoteInfo).WillByDefault([](const std::string& id) {
		SetHold(id, std::nullopt); // While the update waited for its locks.
		return dataupdate::RemoteInfo(5, 0, false, "-");
	});
	EXPECT_EQ(Update({"geo"}), kHeld);
	EXPECT_EQ(Printed()[0]["result"], "held");
}

TEST_F(HoldCommandTest, RefusesAForcedVersionUnlessToldSo) {
	SetHold("geo", 4);
	const auto code = [&](bool even_held) {
		try {
			(void)ForceDatabase(doubles_.services, "geo", 0, 5, even_held);
		} catch (const CommandError& error) {
			return error.Code();
		} catch (const dataupdate::UpdateError&) {
			return kFailed; // It goes on, to a link that is none.
		}
		return kDone;
	};
	ON_CALL(*doubles_.info, GetRemoteInfo).WillByDefault(Return(dataupdate::RemoteInfo(5, 0, false, "-")));
	EXPECT_EQ(code(false), kHeld);
	EXPECT_EQ(code(true), kFailed);
	EXPECT_NO_THROW(RequireNotHeld("geo", 4));
	EXPECT_NO_THROW(RequireNotHeld("zip", 5));
}

TEST_F(HoldCommandTest, IsShownByStatusAndMetrics) {
	SetHold("geo", 4);
	Options options;
	options.json = true;
	EXPECT_EQ(kStatusCommand.run(doubles_.services, options), kDone);
	EXPECT_EQ(Printed()[0]["held"], true);
	EXPECT_EQ(Printed()[0]["held_up_to"], 4);
	EXPECT_EQ(Printed()[1]["held"], false);
	EXPECT_TRUE(Printed()[1]["held_up_to"].isNull());
	doubles_.out.str("");
	EXPECT_EQ(kMetricsCommand.run(doubles_.services, Options()), kDone);
	EXPECT_THAT(
	    doubles_.out.str(), HasSubstr("tarndbud_held{database=\"geo\"} 1\ntarndbud_held{database=\"zip\"} 0\n"));
	EXPECT_THAT(doubles_.out.str(), HasSubstr("tarndbud_held_up_to{database=\"geo\"} 4\n"));
}

} // namespace
} // namespace tarn::ctl
