// Which kind of patch a database gets, with a view to the whole chain.
#include "diff_fixture.h"
#include "publisher/diff/kind_plan.h"

namespace tarn::test {

namespace {

using publisher::AllowedKinds;
using publisher::ChainCosts;
using publisher::KindPlan;
using publisher::PatchKind;
using publisher::PlanKind;
using publisher::PlanToJson;
using publisher::StepCosts;
using publisher::WholeLimit;

constexpr AllowedKinds kBoth = {true, true};
constexpr AllowedKinds kScript = {true, false};
constexpr AllowedKinds kPatch = {false, true};

TEST(KindPlanTest, BeginsWithTheSmallest) {
	EXPECT_EQ(PlanKind({37, 100, 5000}, kBoth, {}).kind, PatchKind::kScript);
	EXPECT_EQ(PlanKind({100, 37, 5000}, kBoth, {}).kind, PatchKind::kVcdiff);
	EXPECT_EQ(PlanKind({100, 37, 20}, kBoth, {}).kind, PatchKind::kWhole);
	EXPECT_EQ(PlanKind({100, 100, 100}, kBoth, {}).kind, PatchKind::kVcdiff);
}

TEST(KindPlanTest, TakesOnlyWhatDevicesCanApply) {
	EXPECT_EQ(PlanKind({100, 37, 5000}, kScript, {}).kind, PatchKind::kScript);
	EXPECT_EQ(PlanKind({37, 100, 5000}, kPatch, {}).kind, PatchKind::kVcdiff);
	EXPECT_EQ(PlanKind({37, 37, 5000}, {}, {}).kind, PatchKind::kWhole);
	EXPECT_EQ(PlanKind({{}, {}, 5000}, kBoth, {}).kind, PatchKind::kWhole);
}

TEST(KindPlanTest, LeavesScriptsByAWholeFileWhenThatPaysBack) {
	const StepCosts costly = {1'000'000, 20'000, 1'500'000};
	const KindPlan plan = PlanKind(costly, kScript, {37, 100});
	EXPECT_EQ(plan.kind, PatchKind::kWhole);
	EXPECT_EQ(plan.expected.at(PatchKind::kScript), 2'000'037U);
	EXPECT_EQ(plan.expected.at(PatchKind::kWhole), 1'520'100U);
	EXPECT_EQ(PlanKind({10'000, 5'000, 1'500'000}, kScript, {10'000, 5'000}).kind, PatchKind::kScript);
}

TEST(KindPlanTest, BeginsNoScriptsThatWereDearSoFar) {
	EXPECT_EQ(PlanKind({37, 100, 1'500'000}, kBoth, {1'000'000, 20'000}).kind, PatchKind::kVcdiff);
	EXPECT_EQ(PlanKind({37, 100, 50'000}, kBoth, {10'000, 20'000}).kind, PatchKind::kScript);
}

TEST(KindPlanTest, CountsAWholeFileWhereThereIsNoScript) {
	ChainCosts costs;
	costs += {{}, 100, 5000};
	costs += {70, {}, 4000};
	EXPECT_EQ(costs.script, 5070U);
	EXPECT_EQ(costs.patch, 4100U);
}

/** Whatever the exact size of the whole file is from its limit on, the plan is another kind. */
TEST(KindPlanTest, MeasuresAWholeFileOnlyAsFarAsItMatters) {
	for (const AllowedKinds allowed : {kBoth, kScript}) {
		for (const ChainCosts& past : {ChainCosts{}, ChainCosts{1'000'000, 20'000}, ChainCosts{50, 90'000}}) {
			StepCosts step = {3000, 700, 0};
			const std::uint64_t limit = WholeLimit(step, allowed, past);
			for (const std::uint64_t more : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{50'000'000}}) {
				step.whole = limit + more;
				EXPECT_NE(PlanKind(step, allowed, past).kind, PatchKind::kWhole);
			}
		}
	}
	EXPECT_EQ(WholeLimit({{}, 10, 0}, kBoth, {}), UINT64_MAX) << "a script's place is the whole file's";
}

TEST(KindPlanTest, TravelsInMetadata) {
	const StepCosts costs = {{}, 100, 5000};
	const Json::Value value = PlanToJson(costs, PlanKind(costs, kBoth, {}));
	EXPECT_EQ(value["expected"]["vcdiff"].asUInt64(), 200U);
	const std::optional<StepCosts> read = publisher::CostsFromJson(value);
	ASSERT_TRUE(read);
	EXPECT_EQ(read->script, std::nullopt);
	EXPECT_EQ(read->patch, 100U);
	EXPECT_EQ(read->whole, 5000U);
	for (const char* text :
	    {"null", "3", "{}", R"({"whole": -1})", R"({"whole": 5, "sql": 1e30})", R"({"whole": 99999999999999999})"}) {
		std::istringstream stream(text);
		Json::Value other;
		stream >> other;
		const std::optional<StepCosts> costs_read = publisher::CostsFromJson(other);
		EXPECT_TRUE(!costs_read || (costs_read->whole == 5 && !costs_read->script)) << text;
	}
}

class KindPlans : public DiffPublisherTest {};

/** A database whose one small change is followed by new texts everywhere that the file holds already. */
TEST_F(KindPlans, ChangeTheKindWhenScriptsHaveBecomeDear) {
	Sql("db", "CREATE TABLE t(i INTEGER PRIMARY KEY, a); CREATE TABLE source(a);"
	          "WITH RECURSIVE c(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM c WHERE i < 300)"
	          "INSERT INTO source SELECT hex(randomblob(400)) FROM c; INSERT INTO t SELECT rowid, '' FROM source;");
	Publish();
	Sql("db", "UPDATE t SET a = 'x' WHERE i = 5");
	Publish();
	EXPECT_EQ(KindsIn(2), (Kinds{{"db", "sql"}}));
	for (int version = 3; version <= 4; ++version) {
		Sql("db", "UPDATE t SET a = (SELECT a FROM source WHERE source.rowid = (t.i + " + std::to_string(version) +
		              ") % 300 + 1)");
		Publish();
	}
	EXPECT_EQ(KindsIn(3), (Kinds{{"db", "whole"}}));
	EXPECT_EQ(KindsIn(4), (Kinds{{"db", "vcdiff"}}));
	const Json::Value plan = MetadataOf(3)["database_costs"]["db"];
	EXPECT_GT(plan["expected"]["sql"].asUInt64(), plan["expected"]["whole"].asUInt64());
	EXPECT_EQ(Followed(1, 4), PublishedTree());
}

} // namespace

} // namespace tarn::test
