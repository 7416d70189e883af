#include "dataupdate/update_error.h"
#include "host/library/hold.h"
#include "host/library/package_size.h"
#include "host/library/update_plan.h"
#include "private_root.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <cstdint>
#include <map>
#include <optional>
#include <sstream>
#include <string>

namespace tarn::ctl {
namespace {

using dataupdate::DiffInfo;
using testing::HasSubstr;
using testing::Return;
using testing::Throw;

TEST(PackageSizeTest, IsThatOfTheLastAnswer) {
	EXPECT_EQ(SizeInHeaders("Spider mode enabled.\n  HTTP/1.1 301 Moved\n  Content-Length: 162\n  Location: x\n"
	                        "--2026--  http://x/\n  HTTP/1.1 200 OK\r\n  content-length:  70001 \r\n"
	                        "Length: 5 [text/html]\n"),
	    70001U);
	EXPECT_EQ(SizeInHeaders("  HTTP/1.1 301 Moved\n  Content-Length: 162\n  HTTP/1.1 200 OK\n"), std::nullopt);
	EXPECT_EQ(SizeInHeaders("  HTTP/1.1 404 Not Found\n  Content-Length: 162\n"), std::nullopt);
	EXPECT_EQ(SizeInHeaders("Content-Length: 5\n"), std::nullopt);
}

TEST(PackageSizeTest, IsUnknownUnlessItIsANumber) {
	for (const char* text : {"", "x", "-1", "5k", "5, 5", "99999999999999999999"}) {
		EXPECT_EQ(SizeInHeaders("  HTTP/1.1 200 OK\n  Content-Length: " + std::string(text) + "\n"), std::nullopt)
		    << text;
	}
}

TEST(ReadersTest, AreThoseThatHoldThisFileShared) {
	const std::string locks = "1: FLOCK  ADVISORY  READ 11 00:1b:4711 0 EOF\n"
	                          "2: FLOCK  ADVISORY  READ 12 00:1b:4711 0 EOF\n"
	                          "2: -> FLOCK  ADVISORY  WRITE 13 00:1b:4711 0 EOF\n"
	                          "3: FLOCK  ADVISORY  WRITE 14 00:1b:4711 0 EOF\n"
	                          "4: POSIX  ADVISORY  READ 15 00:1b:4711 0 EOF\n"
	                          "5: FLOCK  ADVISORY  READ 16 00:1b:47110 0 EOF\n"
	                          "6: FLOCK  ADVISORY  READ 17 00:1c:4711 0 EOF\n";
	EXPECT_EQ(ReadersIn(locks, "00:1b:4711"), (std::vector<pid_t>{11, 12}));
	EXPECT_TRUE(ReadersIn("", "00:1b:4711").empty());
}

TEST(RoomTest, IsToldAsFarAsItIsKnown) {
	EXPECT_EQ(JudgeRoom(10, 100, 100), Room::kEnough);
	EXPECT_EQ(JudgeRoom(10, 101, 100), Room::kPerhaps);
	EXPECT_EQ(JudgeRoom(101, 200, 100), Room::kTooLittle);
	EXPECT_EQ(JudgeRoom(101, std::nullopt, 100), Room::kTooLittle);
	EXPECT_EQ(JudgeRoom(10, std::nullopt, 100), Room::kUnknown);
	EXPECT_EQ(JudgeRoom(std::nullopt, 10, 100), Room::kUnknown);
	EXPECT_EQ(JudgeRoom(10, 10, std::nullopt), Room::kUnknown);
}

/** Version 3 with 400 bytes is installed, 5 is offered, and 900 of 2000 bytes are free. */
class UpdatePlanTest : public test::FixedPathsTest {
protected:
	UpdatePlanTest() {
		doubles_.Install(3);
		ON_CALL(*doubles_.io, GetFsSize).WillByDefault(Return(std::pair<std::uintmax_t, std::uintmax_t>(900, 2000)));
		ON_CALL(*doubles_.io, GetSize).WillByDefault(Return(400));
		doubles_.services.package_size = [](const std::string&) { return std::optional<std::uint64_t>(600); };
	}

	void OfferChain() {
		ON_CALL(*doubles_.info, GetDiffInfos)
		    .WillByDefault(Return(std::map<int, DiffInfo>{{4, {"http://x/4", 30}}, {5, {"http://x/5", 20}}}));
	}
	UpdatePlan Plan() const { return MakeUpdatePlan(doubles_.services, "geo"); }

	test::Doubles doubles_;
};

TEST_F(UpdatePlanTest, TellsAChainAndItsRoom) {
	OfferChain();
	const UpdatePlan plan = Plan();
	EXPECT_TRUE(plan.is_needed);
	EXPECT_EQ(plan.reason, "diff packages lead from version 3 to 5");
	EXPECT_EQ(plan.way.bytes, 50U);
	EXPECT_EQ(plan.most_bytes, 450U);
	EXPECT_EQ(plan.free_bytes, 800U) << "a twentieth stays free";
	EXPECT_EQ(plan.room, Room::kEnough);
	EXPECT_EQ(plan.obstacle, "");
}

TEST_F(UpdatePlanTest, AsksForTheSizeOfAFullPackage) {
	const UpdatePlan plan = Plan();
	EXPECT_EQ(plan.reason, "the server has no diff package from version 3 to 4");
	EXPECT_EQ(plan.way.bytes, 600U);
	EXPECT_EQ(plan.most_bytes, 1200U);
	EXPECT_EQ(plan.room, Room::kPerhaps);
}

TEST_F(UpdatePlanTest, KnowsNoRoomForWhatWasNeverInstalled) {
	doubles_.Install(-1);
	const UpdatePlan plan = Plan();
	EXPECT_EQ(plan.reason, "nothing is installed");
	EXPECT_EQ(plan.most_bytes, std::nullopt);
	EXPECT_EQ(plan.room, Room::kUnknown);
}

TEST_F(UpdatePlanTest, NeedsTheFullPackageAfterAKilledRun) {
	OfferChain();
	doubles_.Install(5);
	test::WriteFile("/var/lib/data_update/geo/version.json", "{}");
	test::WriteFile("/var/lib/data_update/geo/replacing", "");
	const UpdatePlan plan = Plan();
	EXPECT_TRUE(plan.is_needed);
	EXPECT_EQ(plan.reason, "the last replacement of its files was not finished");
}

TEST_F(UpdatePlanTest, CountsOnWhatAKilledRunHadPreparedUnlessAHoldIsInTheWay) {
	OfferChain();
	doubles_.services.find_prepared = [](const std::string&, const std::string&, const std::string&) { return 4; };
	UpdatePlan plan = Plan();
	EXPECT_EQ(plan.from, 3);
	EXPECT_EQ(
	    plan.reason, "a killed replacement by version 4 is finished; then diff packages lead from version 4 to 5");
	EXPECT_EQ(plan.way.bytes, 20U);
	SetHold("geo", 3);
	plan = Plan();
	EXPECT_EQ(plan.finishes, std::nullopt);
	EXPECT_FALSE(plan.is_needed);
}

TEST_F(UpdatePlanTest, SaysWhyThereIsNothingToDo) {
	const auto reason = [this](int installed) {
		doubles_.Install(installed);
		const UpdatePlan plan = Plan();
		EXPECT_FALSE(plan.is_needed);
		return plan.reason;
	};
	EXPECT_EQ(reason(5), "it is up to date");
	EXPECT_EQ(reason(6), "the installed version is above the offered one");
	SetHold("geo", 4);
	EXPECT_EQ(reason(3), "it is held at most at version 4");
	test::WriteFile(HoldPath("geo"), "");
	EXPECT_EQ(reason(3), "its hold cannot be understood (it is no JSON document)");
}

TEST_F(UpdatePlanTest, NamesWhatIsInTheWayOfAScheduledUpdate) {
	doubles_.services.scheduled_budget = [] { return ScheduledBudget([] { return "599"; }); };
	EXPECT_THAT(Plan().obstacle, HasSubstr("it needs the full package, which has 600 B"));
	OfferChain();
	EXPECT_EQ(Plan().obstacle, "");
	ON_CALL(*doubles_.config, GetCurVolume).WillByDefault(Return(""));
	EXPECT_EQ(Plan().obstacle, "there is no storage volume");
	ON_CALL(*doubles_.database, GetScheduled).WillByDefault(Return(false));
	EXPECT_EQ(Plan().obstacle, "the database is not scheduled");
}

TEST_F(UpdatePlanTest, NamesTheDatabasesThatItCannotTellOf) {
	OfferChain();
	ON_CALL(*doubles_.info, GetRemoteInfo("geo")).WillByDefault(Throw(dataupdate::UpdateError("Bad luck")));
	Options options;
	options.json = true;
	EXPECT_EQ(kPlanCommand.run(doubles_.services, options), kFailed);
	Json::Value array;
	std::istringstream(doubles_.out.str()) >> array;
	EXPECT_EQ(array[0]["id"], "geo");
	EXPECT_EQ(array[0]["error"], "Bad luck.");
	EXPECT_EQ(array[0]["exit_status"], kFailed);
	EXPECT_EQ(array[1]["id"], "zip");
	EXPECT_EQ(array[1]["offered_version"], 5);
}

TEST_F(UpdatePlanTest, IsPrintedWithItsReasons) {
	OfferChain();
	Options options;
	options.ids = {"geo"};
	EXPECT_EQ(kPlanCommand.run(doubles_.services, options), kDone);
	EXPECT_EQ(doubles_.out.str(), "DATABASE  FROM  TO  BY             BYTES  NEEDS  FREE   ROOM    READERS\n"
	                              "geo       3     5   diff packages  50 B   450 B  800 B  enough  0\n"
	                              "geo: diff packages lead from version 3 to 5\n");
}

TEST_F(UpdatePlanTest, PrintsThatAKilledReplacementIsFinishedByWhatLiesReady) {
	doubles_.services.find_prepared = [](const std::string&, const std::string&, const std::string&) { return 5; };
	Options options;
	options.ids = {"geo"};
	EXPECT_EQ(kPlanCommand.run(doubles_.services, options), kDone);
	EXPECT_EQ(doubles_.out.str(), "DATABASE  FROM  TO  BY              BYTES  NEEDS  FREE  ROOM  READERS\n"
	                              "geo       3     5   prepared files  0 B    0 B    -     -     0\n"
	                              "geo: a killed replacement by version 5 is finished; then it is up to date\n");
	doubles_.out.str("");
	options.json = true;
	EXPECT_EQ(kPlanCommand.run(doubles_.services, options), kDone);
	EXPECT_THAT(doubles_.out.str(), HasSubstr("\"way\" : \"prepared files\""));
}

} // namespace
} // namespace tarn::ctl
