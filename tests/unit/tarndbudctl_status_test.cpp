#include "expect_error.h"
#include "host/library/hold.h"
#include "host/library/installed_package.h"
#include "host/library/rejection.h"
#include "host/library/run_record.h"
#include "host/terminal/progress_file.h"
#include "host/terminal/text.h"
#include "private_root.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <unistd.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <sstream>
#include <string>

namespace tarn::ctl {
namespace {

using dataupdate::UpdateError;
using testing::HasSubstr;
using testing::Return;
using testing::Throw;

Json::Value Parse(const std::string& text) {
	Json::Value value;
	std::istringstream(text) >> value;
	return value;
}

class StatusTest : public test::FixedPathsTest {
protected:
	ExitCode Run(std::vector<std::string> ids, bool json) {
		Options options;
		options.ids = std::move(ids);
		options.json = json;
		return kStatusCommand.run(doubles_.services, options);
	}
	Json::Value RunJson(std::vector<std::string> ids) {
		EXPECT_EQ(Run(std::move(ids), true), kDone);
		return Parse(doubles_.out.str());
	}

	test::Doubles doubles_;
};

TEST_F(StatusTest, GivesEveryMemberOfADatabase) {
	doubles_.Install(4);
	ON_CALL(*doubles_.checker, IsUpdating("geo")).WillByDefault(Return(true));
	const Json::Value array = RunJson({"geo"});
	ASSERT_EQ(array.size(), 1U);
	EXPECT_EQ(array[0], Parse(R"({"id":"geo","installed_version":4,"offered_version":5,"up_to_date":false,
		"above_offered":false,"published":null,"age_seconds":null,
		"scheduled":true,"updating":true,"unfinished":false,"held":false,"held_up_to":null,"install_dir":"/volume1/@database/autoupdate/geo","volume":"/volume1"})"));
}

TEST_F(StatusTest, TellsThatWhatIsUnfinishedIsInstalledAnew) {
	doubles_.Install(5);
	test::WriteFile("/var/lib/data_update/geo/version.json", "{}");
	test::WriteFile("/var/lib/data_update/geo/replacing", "");
	const Json::Value array = RunJson({});
	EXPECT_EQ(array[0]["unfinished"], true);
	EXPECT_EQ(array[0]["up_to_date"], false);
	EXPECT_EQ(array[1]["unfinished"], false);
	EXPECT_EQ(array[1]["up_to_date"], true);
	EXPECT_EQ(doubles_.err.str(), "");
	doubles_.out.str("");
	EXPECT_EQ(Run({}, false), kDone);
	EXPECT_THAT(doubles_.out.str(), HasSubstr("geo       5          5        unfinished  unknown  yes"));
	EXPECT_EQ(doubles_.err.str(), "tarndbudctl: geo: The last replacement of its files was not finished; "
	                              "\"tarndbudctl update\" or \"tarndbudctl fix\" installs it again.\n");
}

TEST_F(StatusTest, TellsSettingsThatNobodyKnows) {
	doubles_.Install(5);
	test::WriteFile("/usr/tarn/etc/downloads.conf", "lowst_rate 5\n");
	EXPECT_EQ(Run({}, false), kDone);
	EXPECT_EQ(doubles_.err.str(), "tarndbudctl: /usr/tarn/etc/downloads.conf:1: there is no setting \"lowst_rate\", so "
	                              "it has no effect; did you mean \"lowest_rate\"?\n");
}

TEST_F(StatusTest, TellsAFailureUntilAnOperationSucceeds) {
	const auto shown = [this] {
		doubles_.out.str("");
		EXPECT_EQ(Run({"geo"}, false), kDone);
		return doubles_.out.str();
	};
	const auto run = [this](ExitCode code) {
		return RunRecorded(doubles_.services, "geo", "update", [code] { return code; });
	};
	EXPECT_EQ(run(kDone), kDone);
	EXPECT_THROW(
	    RunRecorded(doubles_.services, "geo", "fix", []() -> ExitCode { throw CommandError(kFailed, "Torn"); }),
	    CommandError);
	EXPECT_THAT(shown(), HasSubstr(", fix): Torn.")) << "an earlier success, even within the second, ends nothing";
	test::WriteFile("/var/lib/data_update/geo/last_failure.json",
	    R"({"operation":"fix","time":1000,"exit_status":1,"error":"Torn."})");
	EXPECT_EQ(run(kDone), kDone);
	EXPECT_EQ(run(kBeyondBudget), kBeyondBudget);
	EXPECT_THAT(shown(), testing::Not(HasSubstr("Torn"))) << "the success was before the last run";
	doubles_.out.str("");
	const Json::Value array = RunJson({"geo"});
	EXPECT_EQ(array[0]["last_failure"]["error"], "Torn.");
	EXPECT_GT(array[0]["last_success"].asInt64(), 1000);
}

TEST_F(StatusTest, TellsOfATimerAlsoWhileItTellsNoTime) {
	const auto shown = [this](const NextRun& run) {
		doubles_.services.next_run = [run] { return std::optional(run); };
		doubles_.out.str("");
		EXPECT_EQ(Run({"geo"}, false), kDone);
		return doubles_.out.str();
	};
	EXPECT_THAT(shown({std::nullopt, "a.timer", true}), HasSubstr("The run that a.timer has started is at work.\n"));
	EXPECT_THAT(shown({std::nullopt, "a.timer", false}),
	    HasSubstr("The next run is scheduled by a.timer, which does not tell its time.\n"));
	EXPECT_THAT(shown({1000, "a.timer", false}), HasSubstr(", in 0 min, by a.timer.\n")) << "a clock jumped over it";
	doubles_.out.str("");
	EXPECT_EQ(RunJson({"geo"})[0]["next_run"], 1000);
}

TEST_F(StatusTest, TellsAFailureUntilAnOperationSucceedsThoughTheClockJumped) {
	const auto record = [](const std::string& name, const std::string& members) {
		test::WriteFile("/var/lib/data_update/geo/" + name, R"({"operation":"fix",)" + members + "}");
	};
	const auto shown = [this] {
		doubles_.out.str("");
		EXPECT_EQ(Run({"geo"}, false), kDone);
		return doubles_.out.str();
	};
	record("last_failure.json", R"("time":9000000000,"exit_status":1,"error":"Torn.")");
	record("last_run.json", R"("time":1000,"exit_status":0)");
	EXPECT_THAT(shown(), testing::Not(HasSubstr("Torn"))) << "it failed while the clock was ahead";
	record("last_failure.json", R"("time":1000,"exit_status":1,"error":"Torn.")");
	record("last_run.json", R"("time":1000,"exit_status":1,"last_success":9000000000)");
	EXPECT_THAT(shown(), HasSubstr("Torn")) << "the success before it was while the clock was ahead";
}

TEST_F(StatusTest, NamesAFixAloneForWhatIsUnfinishedAndHeld) {
	doubles_.Install(5);
	test::WriteFile("/var/lib/data_update/geo/version.json", "{}");
	test::WriteFile("/var/lib/data_update/geo/replacing", "");
	SetHold("geo", std::nullopt);
	EXPECT_EQ(Run({"geo"}, false), kDone);
	EXPECT_EQ(doubles_.err.str(), "tarndbudctl: geo: The last replacement of its files was not finished; \"tarndbudctl "
	                              "fix\" installs it again.\n");
	doubles_.err.str("");
	SetHold("geo", 5);
	EXPECT_EQ(Run({"geo"}, false), kDone);
	EXPECT_THAT(doubles_.err.str(), HasSubstr("\"tarndbudctl update\" or")) << "the hold lets version 5 pass";
}

TEST_F(StatusTest, TellsOfAFirstInstallationThatWasKilledAtTheMark) {
	doubles_.Install(-1);
	test::WriteFile("/var/lib/data_update/geo/replacing", "");
	const Json::Value array = RunJson({});
	EXPECT_EQ(array[0]["unfinished"], true);
	EXPECT_TRUE(array[0]["installed_version"].isNull());
	EXPECT_EQ(array[1]["unfinished"], false);
	doubles_.out.str("");
	EXPECT_EQ(Run({}, false), kDone);
	EXPECT_THAT(doubles_.out.str(), HasSubstr("geo       -          5        unfinished     -    yes"));
	EXPECT_THAT(doubles_.out.str(), HasSubstr("zip       -          5        not installed  -    yes"));
	EXPECT_THAT(doubles_.err.str(), HasSubstr("geo: The last replacement of its files was not finished"));
}

TEST_F(StatusTest, KnowsNoProgressByARecordThatIsNone) {
	const std::string record = FormatProgress({"geo", "line", "phase", 1, 2, 3, 4, getpid()});
	test::WriteFile(kProgressFile, record);
	ASSERT_TRUE(ReadProgress().has_value());
	for (const std::string& text :
	    {std::string(), std::string(2000, '['), std::string("[]"), std::string(R"({"id":[]})"),
	        std::string(R"({"process":)") + std::to_string((std::int64_t{1} << 32U) + getpid()) + "}"}) {
		test::WriteFile(kProgressFile, text);
		EXPECT_FALSE(ReadProgress().has_value()) << text.substr(0, 40);
	}
}

TEST_F(StatusTest, SaysWhereDatabasesAreConfiguredWhenNoneIs) {
	ON_CALL(*doubles_.config, GetDatabaseIDs).WillByDefault(Return(std::vector<std::string>()));
	EXPECT_EQ(Run({}, false), kDone);
	EXPECT_EQ(doubles_.out.str(), "No database is configured in /usr/tarn/etc/data_update/databases.conf.\n");
	doubles_.out.str("");
	EXPECT_EQ(RunJson({}), Json::Value(Json::arrayValue));
}

TEST_F(StatusTest, DoesNotCallUpToDateWhatNobodyCanReach) {
	doubles_.Install(5);
	ON_CALL(*doubles_.config, GetCurVolume).WillByDefault(Return(""));
	ON_CALL(*doubles_.database, GetRootDirectory).WillByDefault(Return(""));
	EXPECT_EQ(Run({"geo"}, false), kDone);
	EXPECT_THAT(
	    doubles_.out.str(), HasSubstr("geo       5          5        no volume  unknown  yes        - (no volume)"));
}

TEST_F(StatusTest, NamesAnotherWayOutWhenTheVersionThatWouldRepairWasRefused) {
	doubles_.Install(4);
	test::WriteFile("/var/lib/data_update/geo/version.json", "{}");
	test::WriteFile("/var/lib/data_update/geo/replacing", "");
	RememberRejection("geo", 5, "Refused by hook '/hooks/10': no");
	EXPECT_EQ(Run({"geo"}, false), kDone);
	EXPECT_THAT(doubles_.err.str(), HasSubstr("geo: The files of geo are of two versions"));
	EXPECT_THAT(doubles_.err.str(), testing::Not(HasSubstr("installs it again")));
	doubles_.err.str("");
	doubles_.services.find_prepared = [](auto&&...) { return std::optional(5); };
	EXPECT_EQ(Run({"geo"}, false), kDone);
	EXPECT_THAT(doubles_.err.str(), HasSubstr("installs it again"));
}

TEST_F(StatusTest, TakesALaterVersionThanTheServersForAStateOfItsOwn) {
	doubles_.Install(11, "geo");
	doubles_.Install(5, "zip");
	EXPECT_EQ(Run({}, true), kAboveOffered);
	const Json::Value array = Parse(doubles_.out.str());
	EXPECT_EQ(array[0]["up_to_date"], false);
	EXPECT_EQ(array[0]["above_offered"], true);
	EXPECT_EQ(array[1]["up_to_date"], true);
	EXPECT_EQ(array[1]["above_offered"], false);
	EXPECT_EQ(doubles_.err.str(), "");
	doubles_.out.str("");
	EXPECT_EQ(Run({}, false), kAboveOffered);
	EXPECT_THAT(doubles_.out.str(), HasSubstr("geo       11         5        above offered  unknown  yes"));
	EXPECT_EQ(doubles_.err.str(), "tarndbudctl: geo: Installed 11 is above the offered 5, so no update changes it; ask "
	                              "the publisher whether that is meant.\n");
	EXPECT_EQ(Run({"zip"}, false), kDone);
}

TEST_F(StatusTest, TellsTheAgeThatTheSignedPackageOfTheInstalledVersionGives) {
	doubles_.Install(5);
	const std::time_t published = std::time(nullptr) - 3L * 86'400 - 5;
	test::WriteFile(InstalledPackagePath("geo"), R"({"data_version":5,"published":)" + std::to_string(published) + "}");
	test::WriteFile(InstalledPackagePath("zip"), R"({"data_version":4,"published":1})");
	const Json::Value array = RunJson({});
	EXPECT_EQ(array[0]["published"], Json::Value(Json::Int64{published}));
	EXPECT_GE(array[0]["age_seconds"].asInt64(), 3 * 86'400 + 5);
	EXPECT_LT(array[0]["age_seconds"].asInt64(), 3 * 86'400 + 65);
	EXPECT_TRUE(array[1]["published"].isNull());
	EXPECT_TRUE(array[1]["age_seconds"].isNull());
	doubles_.out.str("");
	EXPECT_EQ(Run({}, false), kDone);
	EXPECT_THAT(doubles_.out.str(), HasSubstr("geo       5          5        up to date  3 d      yes"));
	EXPECT_THAT(doubles_.out.str(), HasSubstr("zip       5          5        up to date  unknown  yes"));
}

TEST_F(StatusTest, HasNullForWhatIsNotInstalledAndForNoVolume) {
	ON_CALL(*doubles_.config, GetCurVolume).WillByDefault(Return(""));
	ON_CALL(*doubles_.database, GetRootDirectory).WillByDefault(Return(""));
	const Json::Value array = RunJson({"geo"});
	for (const char* name : {"installed_version", "volume", "install_dir"}) {
		EXPECT_TRUE(array[0].isMember(name)) << name;
		EXPECT_TRUE(array[0][name].isNull()) << name;
	}
	EXPECT_EQ(array[0]["up_to_date"], false);
}

TEST_F(StatusTest, SucceedsWithTheReasonWhenTheServerCannotBeReached) {
	doubles_.Install(4);
	ON_CALL(*doubles_.info, GetRemoteInfo).WillByDefault(Throw(UpdateError("Fail to wget url: http://x/")));
	const Json::Value array = RunJson({});
	ASSERT_EQ(array.size(), 2U);
	EXPECT_TRUE(array[1]["offered_version"].isNull());
	EXPECT_TRUE(array[1]["up_to_date"].isNull());
	EXPECT_THAT(array[1]["offer_error"].asString(), HasSubstr("Fail to wget url: http://x/; "));
	EXPECT_EQ(doubles_.err.str(), "");
}

TEST_F(StatusTest, TellsAPersonTheReasonOnce) {
	doubles_.Install(4);
	ON_CALL(*doubles_.info, GetRemoteInfo).WillByDefault(Throw(UpdateError("No way")));
	EXPECT_EQ(Run({}, false), kDone);
	EXPECT_EQ(doubles_.out.str(),
	    "DATABASE  INSTALLED  OFFERED  STATE      AGE      SCHEDULED  DIRECTORY\n"
	    "geo       4          unknown  installed  unknown  yes        /volume1/@database/autoupdate/geo\n"
	    "zip       4          unknown  installed  unknown  yes        /volume1/@database/autoupdate/geo\n");
	EXPECT_EQ(doubles_.err.str(), "tarndbudctl: The offered version is unknown. No way.\n");
}

TEST_F(StatusTest, RefusesAnUnknownDatabaseBeforeAskingAnybody) {
	EXPECT_CALL(*doubles_.info, GetRemoteInfo).Times(0);
	EXPECT_EQ(test::MessageOf([&] { Run({"geo", "nope"}, true); }), "Project nope not supported");
	EXPECT_EQ(doubles_.out.str(), "");
}

TEST_F(StatusTest, ShowsTheOtherDatabasesWhenOneHasABadRecord) {
	doubles_.Install(4);
	ON_CALL(*doubles_.info, GetDatabaseStatus("geo")).WillByDefault(Throw(UpdateError("The record is malformed")));
	EXPECT_EQ(Run({}, true), kFailed);
	const Json::Value array = Parse(doubles_.out.str());
	ASSERT_EQ(array.size(), 2U);
	EXPECT_EQ(array[0]["id"], "zip");
	EXPECT_EQ(array[1]["id"], "geo");
	EXPECT_EQ(array[1]["result"], "failed");
	EXPECT_EQ(array[1]["exit_status"].asInt(), kFailed);
	EXPECT_THAT(array[1]["error"].asString(), HasSubstr("The record is malformed"));
	EXPECT_EQ(doubles_.err.str(), "tarndbudctl: geo: The record is malformed.\n");
}

TEST(StatusTableTest, NamesTheStateOfEachDatabase) {
	StatusRow row;
	row.id = "geo";
	row.offered_version = 5;
	const auto state = [&] { return FormatStatusTable({row}, 0); };
	EXPECT_THAT(state(), HasSubstr("geo       -          5        not installed  -    no         - (no volume)"));
	row.installed_version = 4;
	EXPECT_THAT(state(), HasSubstr(" no volume "));
	row.install_dir = "/volume1/geo";
	EXPECT_THAT(state(), HasSubstr(" outdated "));
	row.installed_version = 5;
	EXPECT_THAT(state(), HasSubstr(" up to date "));
	row.installed_version = 6;
	EXPECT_THAT(state(), HasSubstr(" above offered "));
	row.updating = true;
	EXPECT_THAT(state(), HasSubstr(" updating "));
}

} // namespace
} // namespace tarn::ctl
