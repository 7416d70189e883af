#include "dataupdate/update_error.h"
#include "host/library/budget.h"
#include "host/library/run_record.h"
#include "private_root.h"
#include "syslog_capture.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <syslog.h>

#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace tarn::ctl {
namespace {

using dataupdate::DatabaseStatus;
using dataupdate::DiffInfo;
using testing::HasSubstr;
using testing::Return;

/** Why an update is refused; empty when it is not. */
template<typename Check>
std::string ReasonOf(const Check& check) {
	try {
		check();
	} catch (const Refusal& refusal) {
		EXPECT_EQ(refusal.Code(), kBeyondBudget);
		return refusal.what();
	}
	return "";
}

TEST(BudgetTest, ReadsDecimalUnitsAndNothingElse) {
	EXPECT_EQ(ParseBytes("0"), 0U);
	EXPECT_EQ(ParseBytes("1500"), 1500U);
	EXPECT_EQ(ParseBytes("1500k"), 1'500'000U);
	EXPECT_EQ(ParseBytes("20M"), 20'000'000U);
	EXPECT_EQ(ParseBytes("3G"), 3'000'000'000U);
	EXPECT_EQ(ParseBytes("18446744073709551615"), 18446744073709551615U);
	for (const char* text : {"", "k", "-1", "1.5M", "1m", "1MB", " 1", "1 ", "0x10", "18446744073709551616",
	         "18446744073709551615k", "18446744074G"}) {
		EXPECT_EQ(ParseBytes(text), std::nullopt) << text;
	}
}

TEST(BudgetTest, TakesTheRulesOfTheSetting) {
	const auto rule = [](const std::string& text) { return ScheduledBudget([&] { return text; }); };
	EXPECT_EQ(MostOfFullPackage(rule("always"), 0), std::nullopt);
	EXPECT_EQ(MostOfFullPackage(rule("diffs only"), 0), 0U);
	EXPECT_EQ(MostOfFullPackage(rule("2M"), 1'500'000), 2'000'000U) << "what diff packages took is not counted";
	EXPECT_THROW((void)rule("sometimes"), CommandError);
	const auto missing = [](const char* message) {
		return ScheduledBudget([&]() -> std::string { throw dataupdate::UpdateError(message); });
	};
	EXPECT_EQ(MostOfFullPackage(missing("section-key: 'config'-'scheduled_full_packages' not found"), 0), std::nullopt);
	EXPECT_THROW((void)missing("Bad type conversion"), dataupdate::UpdateError);
}

TEST(BudgetTest, CountsWhatWasDownloadedBeforeTheFullPackage) {
	EXPECT_EQ(MostOfFullPackage(BudgetOf(100), 30), 70U);
	EXPECT_EQ(MostOfFullPackage(BudgetOf(100), 130), 0U);
	const auto with = [](std::uint64_t spent, const std::optional<std::uint64_t>& size) {
		return ReasonOf([&] { RequireFullPackageWithin(BudgetOf(100), spent, [&] { return size; }); });
	};
	EXPECT_EQ(with(0, 100), "");
	EXPECT_EQ(with(30, 70), "");
	EXPECT_EQ(with(30, 71), "it needs the full package, which has 71 B, and --max-bytes allows 70 B");
	EXPECT_EQ(with(0, std::nullopt),
	    "it needs the full package, whose size the server does not tell, and --max-bytes allows 100 B");
	EXPECT_EQ(with(100, 1), "it needs the full package, and --max-bytes allows none after 100 B of diff packages");
}

TEST(BudgetTest, AsksForNoSizeThatDoesNotMatter) {
	const auto ask = []() -> std::optional<std::uint64_t> {
		ADD_FAILURE();
		return std::nullopt;
	};
	RequireFullPackageWithin(Budget(), 0, ask);
	EXPECT_NE(ReasonOf([&] { RequireFullPackageWithin(BudgetOf(0), 0, ask); }), "");
}

TEST(BudgetTest, BoundsAChainByWhatItAnnounces) {
	UpdateWay way;
	const auto within = [&](const Budget& budget) { return ReasonOf([&] { RequireChainWithin(budget, way); }); };
	EXPECT_THAT(within(BudgetOf(100)), HasSubstr("does not tell the size"));
	EXPECT_EQ(within(Budget()), "");
	way.bytes = 101;
	EXPECT_EQ(within(BudgetOf(100)), "its diff packages have 101 B, and --max-bytes allows 100 B");
	EXPECT_EQ(within(BudgetOf(101)), "");
	EXPECT_EQ(within(ScheduledBudget([] { return "diffs only"; })), "");
}

Diffs Chain(int from, int to, int bytes) {
	Diffs diffs;
	for (int version = from + 1; version <= to; ++version) {
		diffs.emplace(version, DiffInfo("http://x/", bytes));
	}
	return diffs;
}

TEST(UpdateWayTest, IsAChainThatLeadsAllTheWay) {
	const UpdateWay way = FindWay({3, false, 5}, Chain(1, 6, 2147483647));
	EXPECT_TRUE(way.is_chain);
	EXPECT_EQ(way.packages, 2U);
	EXPECT_EQ(way.bytes, 4294967294U);
}

TEST(UpdateWayTest, IsTheFullPackageForAReason) {
	Diffs diffs = Chain(0, 5, 10);
	diffs.erase(5);
	EXPECT_EQ(FindWay({3, false, 5}, diffs).reason, "the server has no diff package from version 4 to 5");
	EXPECT_FALSE(FindWay({3, false, 5}, diffs).is_chain);
	EXPECT_EQ(FindWay({-1, false, 4}, diffs).reason, "nothing is installed");
	EXPECT_EQ(FindWay({3, true, 4}, diffs).reason, "the last replacement of its files was not finished");
}

TEST(UpdateWayTest, HasNoSizeWhereAPackageAnnouncesNone) {
	Diffs diffs = Chain(0, 5, 10);
	diffs.at(5).file_size = 0;
	EXPECT_EQ(FindWay({3, false, 5}, diffs).bytes, std::nullopt);
	EXPECT_EQ(FindWay({3, false, 4}, diffs).bytes, 10U);
}

/** Two databases at version 3, and the server at 5. */
class BudgetedUpdateTest : public test::FixedPathsTest {
protected:
	BudgetedUpdateTest() {
		doubles_.Install(3);
		doubles_.services.package_size = [this](const std::string& link) {
			EXPECT_EQ(link, "http://x/");
			return full_bytes_;
		};
		doubles_.services.restrict_download = [this](const std::string& /*link*/, std::uint64_t bytes) {
			restricted_.push_back(bytes);
		};
		ON_CALL(*doubles_.info, GetDiffInfos("geo")).WillByDefault(Return(Chain(3, 5, 50)));
		ON_CALL(*doubles_.updater, Update).WillByDefault([this](const std::string& id, auto&&...) {
			doubles_.Install(5, id);
			DatabaseStatus status;
			status.data_version = 5;
			return status;
		});
	}

	ExitCode Run(std::vector<std::string> ids, std::optional<std::uint64_t> most, bool json = false) {
		Options options;
		options.ids = std::move(ids);
		options.max_bytes = most;
		options.json = json;
		return kUpdateCommand.run(doubles_.services, options);
	}

	test::Doubles doubles_;
	std::optional<std::uint64_t> full_bytes_ = 1000;
	std::vector<std::uint64_t> restricted_;
};

TEST_F(BudgetedUpdateTest, IsRefusedForAChainThatIsTooLarge) {
	EXPECT_CALL(*doubles_.updater, Update).Times(0);
	const test::SyslogCapture log;
	EXPECT_EQ(Run({"geo"}, 99), kBeyondBudget);
	EXPECT_EQ(doubles_.out.str(), "geo: version 5 was not installed: its diff packages have 100 B, and --max-bytes "
	                              "allows 99 B\n");
	EXPECT_EQ(doubles_.err.str(), "");
	EXPECT_EQ(log.Count(LOG_WARNING, {"geo: version 5 was not installed: its diff packages"}), 1U);
	EXPECT_EQ(ReadRunRecord("geo").value().exit_status, kBeyondBudget);
}

TEST_F(BudgetedUpdateTest, IsCarriedOutWithinTheBudget) {
	EXPECT_EQ(Run({"geo"}, 100), kDone);
	EXPECT_EQ(doubles_.out.str(), "geo: updated from version 3 to version 5\n");
}

TEST_F(BudgetedUpdateTest, IsRefusedWhenTheFullPackageWouldFollowAFailedChain) {
	doubles_.falls_back = true;
	EXPECT_CALL(*doubles_.updater, Update).Times(0);
	EXPECT_EQ(Run({"geo"}, 999, true), kBeyondBudget);
	Json::Value array;
	std::istringstream(doubles_.out.str()) >> array;
	EXPECT_EQ(array[0]["result"], "beyond budget");
	EXPECT_EQ(array[0]["version"], 3);
	EXPECT_EQ(array[0]["offered_version"], 5);
	EXPECT_EQ(array[0]["exit_status"], kBeyondBudget);
	EXPECT_EQ(array[0]["reason"], "it needs the full package, which has 1.0 kB, and --max-bytes allows 999 B");
	EXPECT_TRUE(restricted_.empty());
}

TEST_F(BudgetedUpdateTest, HoldsTheServerToTheAllowanceOfAFullPackage) {
	doubles_.falls_back = true;
	EXPECT_EQ(Run({"geo"}, 1000), kDone);
	EXPECT_EQ(restricted_, std::vector<std::uint64_t>{1000});
	doubles_.Install(3, "geo");
	EXPECT_EQ(Run({"geo"}, std::nullopt), kDone);
	EXPECT_EQ(restricted_.size(), 1U) << "nothing bounds what has no budget";
}

TEST_F(BudgetedUpdateTest, ObeysTheSettingWhenScheduledAndGoesOnWithTheNextDatabase) {
	doubles_.falls_back = true;
	doubles_.services.scheduled_budget = [] { return ScheduledBudget([] { return "diffs only"; }); };
	EXPECT_CALL(*doubles_.updater, Update).Times(0);
	EXPECT_EQ(Run({}, std::nullopt), kBeyondBudget);
	EXPECT_THAT(doubles_.out.str(), HasSubstr("geo: version 5 was not installed: it needs the full package, and the "
	                                          "setting \"scheduled_full_packages\" allows none\n"));
	EXPECT_THAT(doubles_.out.str(), HasSubstr("zip: version 5 was not installed: "));
}

TEST_F(BudgetedUpdateTest, AsksTheSettingNeitherForNamedDatabasesNorBesideTheOption) {
	doubles_.falls_back = true;
	doubles_.services.scheduled_budget = [] { return ScheduledBudget([] { return "diffs only"; }); };
	EXPECT_EQ(Run({"geo"}, std::nullopt), kDone);
	doubles_.Install(3, "geo");
	EXPECT_EQ(Run({}, 1000), kDone);
}

} // namespace
} // namespace tarn::ctl
