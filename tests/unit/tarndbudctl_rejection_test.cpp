#include "expect_error.h"
#include "host/commands/commands.h"
#include "host/library/hold.h"
#include "host/library/operation.h"
#include "host/library/rejection.h"
#include "host/library/run_record.h"
#include "private_root.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <filesystem>
#include <sstream>

namespace tarn::ctl {
namespace {

using dataupdate::UpdateError;
using testing::_;
using testing::HasSubstr;
using testing::Return;
using testing::Throw;

constexpr char kMessage[] = "Refused by hook '/hooks/10': three rules are bad";

/** Version 4 is installed, version 5 offered, and what the updater does is up to the test. */
class RejectionTest : public test::FixedPathsTest {
protected:
	void SetUp() override {
		test::FixedPathsTest::SetUp();
		if (!IsSkipped()) {
			doubles_.Install(4);
			ON_CALL(*doubles_.updater, Update).WillByDefault(Throw(UpdateError(kMessage)));
		}
	}
	ExitCode Run(bool retry = false, std::vector<std::string> ids = {"geo"}) {
		Options options;
		options.ids = std::move(ids);
		options.retry_refused = retry;
		return kUpdateCommand.run(doubles_.services, options);
	}
	void Accept(int version) {
		dataupdate::DatabaseStatus status;
		status.data_version = version;
		ON_CALL(*doubles_.updater, Update).WillByDefault(Return(status));
	}
	void Offer(int version) {
		ON_CALL(*doubles_.info, GetRemoteInfo)
		    .WillByDefault(Return(dataupdate::RemoteInfo(version, 0, false, "http://x/")));
	}

	test::Doubles doubles_;
};

TEST_F(RejectionTest, IsToldWithTheHooksSentenceAndRemembered) {
	EXPECT_EQ(Run(), kRefusedHere);
	EXPECT_EQ(doubles_.err.str(), "tarndbudctl: geo: Refused by hook '/hooks/10': three rules are bad; nothing was "
	                              "replaced; no update tries this "
	                              "version again unless told so by \"tarndbudctl update geo --retry-refused\".\n");
	const std::optional<Rejection> rejection = ReadRejection("geo");
	ASSERT_TRUE(rejection);
	EXPECT_EQ(rejection->version, 5);
	EXPECT_EQ(rejection->message, kMessage);
	EXPECT_EQ(ReadRunRecord("geo")->exit_status, kRefusedHere);
	EXPECT_THAT(ReadFailureRecord("geo")->sentence, HasSubstr("three rules are bad"));
	EXPECT_THAT(ReadFailureRecord("geo")->sentence, HasSubstr("\"tarndbudctl update geo --retry-refused\""));
}

TEST_F(RejectionTest, NamesAWayOutWhereFilesAreOfTwoVersions) {
	const std::string begin = " The files of geo are of two versions, because a replacement was not finished: ";
	const std::string back =
	    begin +
	    "\"tarndbudctl hold geo\" and then \"tarndbudctl fix geo\" bring version 4 back, as long as the server has it.";
	const std::string later = begin + "when the check accepts the version, \"tarndbudctl fix geo\" makes them whole.";
	EXPECT_EQ(WayOutOfRefusal(doubles_.services, "geo"), "");
	test::WriteFile("/var/lib/data_update/geo/version.json", "{}");
	test::WriteFile("/var/lib/data_update/geo/replacing", "");
	EXPECT_EQ(Run(), kRefusedHere);
	EXPECT_THAT(doubles_.err.str(), testing::EndsWith("--retry-refused\"." + back + "\n"));
	EXPECT_THAT(ReadFailureRecord("geo")->sentence, testing::EndsWith(back));
	SetHold("geo", 6);
	EXPECT_EQ(WayOutOfRefusal(doubles_.services, "geo"), back) << "the hold keeps nothing off yet";
	SetHold("geo", 4);
	EXPECT_EQ(WayOutOfRefusal(doubles_.services, "geo"), later) << "that has been tried";
	EXPECT_TRUE(EndHold("geo"));
	doubles_.Install(5);
	EXPECT_EQ(WayOutOfRefusal(doubles_.services, "geo"), later) << "what would come back is what was refused";
	doubles_.Install(-1);
	EXPECT_EQ(WayOutOfRefusal(doubles_.services, "geo"), later) << "there is no version to go back to";
}

TEST_F(RejectionTest, KeepsTheVersionFromBeingTriedUntilAskedFor) {
	EXPECT_CALL(*doubles_.updater, Update("zip", _, _, _, _, _, _)).WillRepeatedly(Throw(UpdateError(kMessage)));
	EXPECT_CALL(*doubles_.updater, Update("geo", _, _, _, _, _, _)).WillOnce(Throw(UpdateError(kMessage)));
	EXPECT_EQ(Run(), kRefusedHere);
	EXPECT_EQ(Run(), kRefusedHere);
	EXPECT_EQ(Run(false, {}), kRefusedHere);
	testing::Mock::VerifyAndClearExpectations(doubles_.updater.get());
	Accept(5);
	EXPECT_EQ(Run(true), kDone);
	EXPECT_FALSE(ReadRejection("geo"));
}

TEST_F(RejectionTest, IsOfOneVersionAndGoesWithALaterOne) {
	EXPECT_EQ(Run(), kRefusedHere);
	Offer(6);
	Accept(6);
	EXPECT_EQ(Run(), kDone);
	EXPECT_FALSE(ReadRejection("geo"));
}

TEST_F(RejectionTest, StaysWhenAnOlderVersionIsInstalled) {
	RememberRejection("geo", 5, kMessage);
	ForgetRejection("geo", 4);
	EXPECT_TRUE(ReadRejection("geo"));
	ForgetRejection("geo", 5);
	EXPECT_FALSE(ReadRejection("geo"));
}

TEST_F(RejectionTest, KeepsNoOtherDatabaseFromItsUpdate) {
	dataupdate::DatabaseStatus status;
	status.data_version = 5;
	EXPECT_CALL(*doubles_.updater, Update("geo", _, _, _, _, _, _)).WillOnce(Throw(UpdateError(kMessage)));
	EXPECT_CALL(*doubles_.updater, Update("zip", _, _, _, _, _, _)).WillOnce(Return(status));
	EXPECT_EQ(Run(false, {}), kRefusedHere);
	EXPECT_THAT(doubles_.out.str(), HasSubstr("zip: updated from version 4 to version 5\n"));
}

TEST_F(RejectionTest, IsNotMadeOfOtherFailures) {
	ON_CALL(*doubles_.updater, Update)
	    .WillByDefault(Throw(UpdateError("No verdict by hook '/hooks/10': it was killed")));
	EXPECT_EQ(Run(), kFailed);
	EXPECT_THAT(doubles_.err.str(), HasSubstr("it was killed; nothing was replaced; see the system log"));
	EXPECT_FALSE(ReadRejection("geo"));
	RememberRejection("geo", 5, "Disk space is too low");
	EXPECT_FALSE(ReadRejection("geo"));
}

TEST_F(RejectionTest, IsNotBelievedFromADamagedRecord) {
	for (const char* content : {"", "[]", R"({"version":"x"})", R"({"version":5,"message":"anything"})"}) {
		test::WriteFile(RejectionPath("geo"), content);
		EXPECT_NO_THROW(RequireNotRejected("geo", 5)) << content;
	}
	RememberRejection("geo", 5, kMessage);
	EXPECT_NO_THROW(RequireNotRejected("geo", 6));
	EXPECT_EQ(test::MessageOf([] { RequireNotRejected("geo", 5); }), kMessage);
}

TEST_F(RejectionTest, IsShownByStatus) {
	RememberRejection("geo", 5, kMessage);
	Options options;
	options.ids = {"geo"};
	EXPECT_EQ(kStatusCommand.run(doubles_.services, options), kDone);
	EXPECT_THAT(doubles_.err.str(), HasSubstr("geo: Version 5 was refused by a check of this machine"));
	doubles_.out.str("");
	options.json = true;
	EXPECT_EQ(kStatusCommand.run(doubles_.services, options), kDone);
	Json::Value array;
	std::istringstream(doubles_.out.str()) >> array;
	EXPECT_EQ(array[0]["refused_version"], 5);
}

} // namespace
} // namespace tarn::ctl
