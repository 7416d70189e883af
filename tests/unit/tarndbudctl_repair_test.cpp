#include "dataupdate/file_lock.h"
#include "dataupdate/interruption.h"
#include "host/library/failure.h"
#include "host/library/run_record.h"
#include "private_root.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace tarn::ctl {
namespace {

using dataupdate::DatabaseStatus;
using dataupdate::RemoteInfo;
using testing::_;
using testing::HasSubstr;
using testing::Not;
using testing::Return;

/** Nothing listens there. */
constexpr char kLink[] = "http://127.0.0.1:9/5/geo_5";

class RepairCommandTest : public test::FixedPathsTest {
protected:
	void SetUp() override {
		test::FixedPathsTest::SetUp();
		if (IsSkipped()) {
			return;
		}
		ON_CALL(*doubles_.config, GetCurVolume).WillByDefault(Return(directory_ / "volume"));
		ON_CALL(*doubles_.database, GetInstallPrefix).WillByDefault(Return(directory_ / "volume/geo"));
		ON_CALL(*doubles_.info, GetRemoteInfo).WillByDefault(Return(RemoteInfo(5, 0, false, kLink)));
		doubles_.Install(5);
	}
	void TearDown() override {
		dataupdate::ForgetInterruption();
		test::FixedPathsTest::TearDown();
	}
	ExitCode Fix(std::vector<std::string> ids) {
		options_.ids = std::move(ids);
		return kFixCommand.run(doubles_.services, options_);
	}
	ExitCode Force(int version) {
		options_.id = "geo";
		options_.version = version;
		return kForceInstallCommand.run(doubles_.services, options_);
	}
	std::string Sentence(int version) {
		try {
			Force(version);
		} catch (const std::exception& error) {
			return error.what();
		}
		return "";
	}
	/** Lets a recorded file be missing. */
	void Damage(const std::string& id) {
		DatabaseStatus status;
		status.data_version = 5;
		status.file_statuses["gone"] = dataupdate::FileStatus("0");
		ON_CALL(*doubles_.info, GetDatabaseStatus(id)).WillByDefault(Return(status));
	}

	test::TemporaryDirectory directory_;
	test::Doubles doubles_;
	Options options_;
};

TEST_F(RepairCommandTest, LeavesAloneWhatIsIntact) {
	EXPECT_CALL(*doubles_.info, SetDatabaseStatus).Times(0);
	EXPECT_EQ(Fix({"geo", "zip"}), kDone);
	EXPECT_EQ(doubles_.out.str(), "geo: intact, version 5\nzip: intact, version 5\n");
	EXPECT_FALSE(std::filesystem::exists(directory_ / "volume/@tmp"));
}

TEST_F(RepairCommandTest, TriesAllNamedDatabasesAndEndsWithTheFirstFailure) {
	Damage("geo");
	EXPECT_EQ(Fix({"geo", "nope", "zip"}), kFailed);
	EXPECT_EQ(doubles_.out.str(), "zip: intact, version 5\n");
	EXPECT_THAT(doubles_.err.str(), HasSubstr("geo: Fail to wget url: http://127.0.0.1:9/5/geo_5; "));
	EXPECT_THAT(doubles_.err.str(), HasSubstr("nope: Project nope not supported; "));
	EXPECT_TRUE(std::filesystem::is_empty(directory_ / "volume/@tmp/data_update"));
}

TEST_F(RepairCommandTest, FixesTheScheduledOnesUpToTheFirstFailure) {
	Damage("geo");
	EXPECT_THROW(Fix({}), dataupdate::UpdateError);
	EXPECT_EQ(doubles_.out.str(), "");
	doubles_.Install(5, "geo");
	EXPECT_EQ(Fix({}), kDone);
	EXPECT_EQ(doubles_.out.str(), "geo: intact, version 5\nzip: intact, version 5\n");
}

TEST_F(RepairCommandTest, TellsWhichOfTheScheduledOnesFailed) {
	Damage("geo");
	options_.json = true;
	EXPECT_THROW(Fix({}), dataupdate::UpdateError);
	EXPECT_THAT(doubles_.out.str(), testing::MatchesRegex("\\[\n.*\"error\" : .*\"exit_status\" : 1,\n\t\t\"id\" : "
	                                                      "\"geo\",\n\t\t\"result\" : \"failed\".*\\]\n"));
}

TEST_F(RepairCommandTest, TellsAllResultsInOneArray) {
	Damage("geo");
	options_.json = true;
	EXPECT_EQ(Fix({"geo", "zip"}), kFailed);
	EXPECT_THAT(
	    doubles_.out.str(), testing::MatchesRegex("\\[\n.*\"exit_status\" : 1,\n\t\t\"id\" : \"geo\",\n\t\t\"result\" "
	                                              ": \"failed\".*\"result\" : \"intact\".*\\]\n"));
}

TEST_F(RepairCommandTest, NeedsAVolume) {
	ON_CALL(*doubles_.config, GetCurVolume).WillByDefault(Return(""));
	EXPECT_CALL(*doubles_.info, GetRemoteInfo).Times(0);
	EXPECT_EQ(Fix({"geo"}), kFailed);
	EXPECT_THAT(doubles_.err.str(), HasSubstr("geo: There is no storage volume"));
	EXPECT_THAT(Sentence(0), HasSubstr("There is no storage volume"));
}

TEST_F(RepairCommandTest, WritesNothingBelowTheMountPointOfAVanishedVolume) {
	doubles_.is_available = false;
	EXPECT_CALL(*doubles_.info, GetRemoteInfo).Times(0);
	EXPECT_EQ(Fix({"geo"}), kFailed);
	EXPECT_THAT(doubles_.err.str(), HasSubstr("is in use, but is not available"));
	EXPECT_THAT(Sentence(0), HasSubstr("is in use, but is not available"));
}

TEST_F(RepairCommandTest, LooksForTheVolumeAgainOnceItHasTheLocks) {
	Damage("geo");
	ON_CALL(*doubles_.info, GetRemoteInfo).WillByDefault([this](const std::string&) {
		doubles_.is_available = false;
		return RemoteInfo(5, 0, false, kLink);
	});
	EXPECT_EQ(Fix({"geo"}), kFailed);
	EXPECT_THAT(doubles_.err.str(), HasSubstr("is in use, but is not available"));
	doubles_.is_available = true;
	EXPECT_THAT(Sentence(0), HasSubstr("is in use, but is not available"));
	EXPECT_FALSE(std::filesystem::exists(directory_ / "volume"));
}

TEST_F(RepairCommandTest, DoesNotWaitWhenToldSo) {
	ON_CALL(*doubles_.checker, IsAnyUpdating).WillByDefault(Return(true));
	options_.no_wait = true;
	EXPECT_THAT(Sentence(0), HasSubstr("Another update is running"));
	EXPECT_THROW(Fix({"geo"}), CommandError);
}

TEST_F(RepairCommandTest, SaysWhatWasMadeOfTheLinkOfAForcedVersion) {
	const std::string sentence = Sentence(-2);
	EXPECT_THAT(sentence, HasSubstr("Fail to wget url: http://127.0.0.1:9/3/geo_3; "));
	EXPECT_THAT(sentence, HasSubstr("each 5 in it, host and port included, replaced by 3"));
	EXPECT_EQ(Sentence(0), "Fail to wget url: http://127.0.0.1:9/5/geo_5");
}

TEST_F(RepairCommandTest, RefusesAVersionBelowTheFirst) {
	EXPECT_THAT(Sentence(-6), HasSubstr("There is no version -1; the server's version is 5"));
	EXPECT_THAT(Sentence(-5), HasSubstr("Fail to wget url: http://127.0.0.1:9/0/geo_0"));
	EXPECT_THAT(Sentence(-2147483647 - 1), HasSubstr("There is no version -2147483643"));
}

TEST_F(RepairCommandTest, RefusesToForceADatabaseThatIsNotConfigured) {
	options_.id = "nope";
	EXPECT_THROW(kForceInstallCommand.run(doubles_.services, options_), dataupdate::UpdateError);
	EXPECT_FALSE(std::filesystem::exists("/run/data_update/update_nope.lock"));
}

TEST_F(RepairCommandTest, RecordsHowItWent) {
	EXPECT_FALSE(ReadRunRecord("geo"));
	EXPECT_EQ(Fix({"geo"}), kDone);
	EXPECT_EQ(ReadRunRecord("geo")->operation, "fix");
	EXPECT_EQ(ReadRunRecord("geo")->exit_status, 0);
	EXPECT_NE(Sentence(3), "");
	EXPECT_EQ(ReadRunRecord("geo")->operation, "force-install");
	EXPECT_EQ(ReadRunRecord("geo")->exit_status, kFailed);
	EXPECT_GT(ReadRunRecord("geo")->time, 1700000000);
}

TEST_F(RepairCommandTest, TakesADamagedRecordForNone) {
	for (const char* content : {"", "{", "[]", R"({"time":"soon"})"}) {
		test::WriteFile(RunRecordPath("geo"), content);
		EXPECT_FALSE(ReadRunRecord("geo")) << content;
	}
}

TEST_F(RepairCommandTest, StopsAtTheFirstDatabaseWhenAskedToEnd) {
	const dataupdate::FileLock busy("/run/data_update/update_any.lock", 0);
	dataupdate::RequestInterruption();
	EXPECT_THROW(Fix({"geo", "zip"}), dataupdate::UpdateError);
	EXPECT_EQ(doubles_.err.str(), "");
	EXPECT_FALSE(ReadRunRecord("geo"));
}

TEST_F(RepairCommandTest, RecordsWhatFailedOnItsOwnThoughAskedToEnd) {
	ON_CALL(*doubles_.info, GetRemoteInfo).WillByDefault([](const std::string&) -> RemoteInfo {
		dataupdate::RequestInterruption();
		throw dataupdate::UpdateError("Fail to full update: no space");
	});
	EXPECT_THROW(Fix({"geo"}), dataupdate::UpdateError);
	EXPECT_EQ(ReadRunRecord("geo")->exit_status, kFailed);
}

} // namespace
} // namespace tarn::ctl
