#include "dataupdate/installation.h"
#include "dataupdate/internal/planned_strategy.h"
#include "dataupdate/internal/replacement_plan.h"
#include "dataupdate/internal/replacement_scope.h"
#include "dataupdate/internal/strategy_steps.h"
#include "dataupdate/paths.h"
#include "dataupdate/updater.h"
#include "fake_platform.h"
#include "library_test.h"
#include "private_root.h"

#include <gmock/gmock.h>

#include <syslog.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

constexpr char kPlan[] = "/var/lib/data_update/geo/replacement";

class ReplacementPlanTest : public test::FixedPathsTest {
protected:
	void SetUp() override {
		FixedPathsTest::SetUp();
		WriteFile(Prepared("a"), "new");
	}
	std::string Prepared(const std::string& name) const { return directory_ / ("prepared/" + name); }
	std::string Installed(const std::string& name) const { return directory_ / ("installed/" + name); }

	void WritePlan(const std::string& gone = "") const {
		PlanWriter plan("geo", {7, 1700000000, false, Volume(), directory_ / "installed"});
		plan.AddFile("a", Prepared("a"));
		if (!gone.empty()) {
			plan.AddDeletion(gone, Prepared(gone));
		}
		plan.Finish();
	}
	std::string Volume() const { return directory_ / "volume"; }
	std::optional<ReplacementPlan> Find() const { return FindWholePlan("geo", Volume(), directory_ / "installed"); }

	test::TemporaryDirectory directory_;
};

TEST_F(ReplacementPlanTest, IsReadAsItWasWritten) {
	WritePlan("b");
	const std::optional<ReplacementPlan> plan = ReadPlan("geo");
	ASSERT_TRUE(plan);
	EXPECT_EQ(plan->version.data_version, 7);
	EXPECT_EQ(plan->version.last_fetch_time, 1700000000);
	EXPECT_FALSE(plan->version.is_full);
	EXPECT_EQ(plan->version.volume, Volume());
	EXPECT_EQ(plan->version.install_directory, directory_ / "installed");
	ASSERT_EQ(plan->files.Size(), 2U);
	EXPECT_EQ(plan->files.Text(0), IdentityOf(Prepared("a")));
	EXPECT_FALSE(plan->files.HasText(1));
	EXPECT_EQ(plan->sources.Text(1), Prepared("b"));
}

TEST_F(ReplacementPlanTest, IsOfNoUseAfterARestart) {
	WritePlan();
	std::string text = ReadFile(kPlan);
	text.front() = text.front() == '0' ? '1' : '0'; // The system's start comes first.
	WriteFile(kPlan, text);
	EXPECT_FALSE(ReadPlan("geo"));
	EXPECT_FALSE(FindUnfinishedVersion("geo")); // Nothing is unfinished.
	SetMarkOverPlan("geo");
	EXPECT_EQ(FindUnfinishedVersion("geo"), 7) << "what it was for is known all the same";
	WriteFile(kPlan, text.substr(0, text.find('\0') + 2));
	EXPECT_FALSE(FindUnfinishedVersion("geo"));
}

TEST_F(ReplacementPlanTest, IsNothingWhenItIsCutOff) {
	WritePlan("b");
	const std::string text = ReadFile(kPlan);
	for (std::size_t size = 0; size < text.size(); ++size) {
		WriteFile(kPlan, text.substr(0, size));
		SetMarkOverPlan("geo");
		const std::optional<ReplacementPlan> plan = ReadPlan("geo");
		// Between two files it cannot be told from a plan of fewer files, which is why it takes its place as a whole.
		EXPECT_TRUE(!plan || plan->files.Size() < 2) << size;
	}
}

TEST_F(ReplacementPlanTest, IsWholeWhileEachFileIsReadyOrInItsPlace) {
	WritePlan("b");
	EXPECT_FALSE(Find()); // Nothing is unfinished.
	SetMarkOverPlan("geo");
	EXPECT_TRUE(Find());
	fs::create_directory(directory_ / "installed");
	fs::rename(Prepared("a"), Installed("a"));
	EXPECT_TRUE(Find());
	WriteFile(Installed("a"), "and more");
	EXPECT_FALSE(Find());
}

TEST_F(ReplacementPlanTest, IsThatOfOneVolumeAndDirectory) {
	WritePlan();
	SetMarkOverPlan("geo");
	EXPECT_FALSE(FindWholePlan("geo", "/elsewhere", directory_ / "installed"));
	EXPECT_FALSE(FindWholePlan("geo", Volume(), "/elsewhere"));
	EXPECT_FALSE(FindWholePlan("poi", Volume(), directory_ / "installed"));
}

TEST_F(ReplacementPlanTest, DoesNotOutliveTheMarkOfAnother) {
	WritePlan();
	SetReplacementMark("geo");
	EXPECT_FALSE(fs::exists(kPlan));
	ClearReplacementMark("geo");
	WritePlan();
	EXPECT_TRUE(MarkUnfinished("geo"));
	EXPECT_FALSE(fs::exists(kPlan));
	WritePlan();
	EXPECT_FALSE(MarkUnfinished("geo")); // The mark that stands may be the plan's own.
	EXPECT_TRUE(fs::exists(kPlan));
	ClearReplacementMark("geo");
	EXPECT_FALSE(fs::exists(kPlan));
}

TEST_F(ReplacementPlanTest, IsWrittenWithinAScopeOnly) {
	const auto list = [this](PlanWriter& plan) { plan.AddFile("a", Prepared("a")); };
	PlanReplacement("geo", {7, 0, false, Volume(), "/installed"}, list);
	EXPECT_FALSE(fs::exists(kPlan));
	const ReplacementScope scope("geo");
	PlanReplacement("geo", {7, 0, false, Volume(), "/installed"}, list);
	AnnounceReplacement("geo");
	EXPECT_TRUE(fs::exists(kPlan));
	scope.EndByRecord();
	EXPECT_FALSE(fs::exists(kPlan));
}

TEST_F(ReplacementPlanTest, ThatCannotBeMadeIsLoggedAndTakesTheOldOneAway) {
	WritePlan();
	test::SyslogCapture log;
	const ReplacementScope scope("geo");
	PlanReplacement("geo", {8, 0, false, Volume(), "/installed"},
	    [this](PlanWriter& plan) { plan.AddFile("a", Prepared("missing")); });
	AnnounceReplacement("geo");
	EXPECT_FALSE(fs::exists(kPlan));
	EXPECT_FALSE(fs::exists(std::string(kPlan) + ".tmp"));
	EXPECT_THAT(test::Lines(log), ElementsAre(Line{LOG_INFO, "replacement_scope.cpp",
	                                  "Killed from here on, this replacement would need its package again: " +
	                                      Prepared("missing") + " is no regular file"}));
}

class FinishedReplacementTest : public ReplacementPlanTest {
protected:
	UpdateResult Finish() const {
		const ReplacementScope scope("geo");
		UpdateResult result = FinishReplacement("geo", Volume(), directory_ / "installed");
		scope.EndByRecord();
		return result;
	}
	std::string Temporary(const std::string& name) const { return TempPath(Volume(), "geo", name); }

	test::FakePlatform platform_;
};

TEST_F(FinishedReplacementTest, PutsTheRestOfADiffInPlace) {
	WriteFile(Installed("a"), "old");
	WriteFile(Installed("b"), "to be deleted");
	WriteFile(Installed("c"), "of nobody");
	fs::create_directories(TempDirPath(Volume()));
	WritePlan("b");
	SetMarkOverPlan("geo");
	EXPECT_EQ(FindPreparedReplacement("geo", Volume(), directory_ / "installed"), 7);
	const UpdateResult result = Finish();
	EXPECT_EQ(result.data_version, 7);
	EXPECT_EQ(result.last_fetch_time, 1700000000);
	EXPECT_FALSE(result.is_full);
	EXPECT_EQ(result.files.Size(), 2U);
	EXPECT_EQ(ReadFile(Installed("a")), "new");
	EXPECT_FALSE(fs::exists(Installed("b")));
	EXPECT_TRUE(fs::exists(Installed("c")));
	EXPECT_FALSE(fs::exists(kPlan));
	EXPECT_FALSE(FindPreparedReplacement("geo", Volume(), directory_ / "installed"));
}

TEST_F(FinishedReplacementTest, MovesTheRestOfATreeIn) {
	WriteFile(Installed("old/a"), "old");
	WriteFile(Installed("moved"), "in already");
	WriteFile(Temporary("staged") + "/a", "new");
	fs::create_directories(Temporary("replaced"));
	WriteFile(Temporary("v7"), "no package");
	PlanWriter plan("geo", {7, 0, true, Volume(), directory_ / "installed"});
	plan.AddFile("a", Temporary("staged") + "/a");
	plan.AddFile("moved", Installed("moved"));
	plan.Finish();
	SetMarkOverPlan("geo");
	const UpdateResult result = Finish();
	EXPECT_TRUE(result.is_full);
	EXPECT_THAT(EntriesBelow(directory_ / "installed"), ::testing::UnorderedElementsAre("a", "moved"));
	EXPECT_FALSE(fs::exists(Temporary("staged")));
	EXPECT_FALSE(fs::exists(Temporary("replaced")));
}

TEST_F(FinishedReplacementTest, LeavesWhatWasPreparedForADatabaseOfASimilarName) {
	const std::vector<std::string> suffixes = {
	    "full", "staged", "replaced", "sum", "check", "changes", "debug", "v7", "d7", "d-1", "delta_7"};
	for (const std::string& suffix : suffixes) {
		WriteFile(Temporary(suffix), "own");
		WriteFile(Temporary("city_" + suffix), "geo_city's");
		WriteFile(Temporary("d7_" + suffix), "geo_d7's");
		WriteFile(Temporary("delta_" + suffix), "geo_delta's");
	}
	WritePlan();
	SetMarkOverPlan("geo");
	EXPECT_EQ(Finish().data_version, 7);
	for (const std::string& suffix : suffixes) {
		EXPECT_FALSE(fs::exists(Temporary(suffix))) << suffix;
		EXPECT_TRUE(fs::exists(Temporary("city_" + suffix))) << suffix;
		EXPECT_TRUE(fs::exists(Temporary("d7_" + suffix))) << suffix;
		EXPECT_TRUE(fs::exists(Temporary("delta_" + suffix))) << suffix;
	}
}

TEST_F(FinishedReplacementTest, NeedsWhatWasPrepared) {
	WritePlan();
	SetMarkOverPlan("geo");
	fs::remove(Prepared("a"));
	EXPECT_EQ(MessageOf([&] { Finish(); }), "What was prepared for geo is no longer whole");
}

TEST_F(ReplacementPlanTest, TellsFilesApart) {
	const std::string first = IdentityOf(Prepared("a"));
	EXPECT_FALSE(first.empty());
	WriteFile(Prepared("b"), "new");
	EXPECT_NE(IdentityOf(Prepared("b")), first);
	fs::rename(Prepared("a"), Prepared("c"));
	EXPECT_EQ(IdentityOf(Prepared("c")), first);
	fs::create_symlink(Prepared("c"), Prepared("link"));
	EXPECT_EQ(IdentityOf(Prepared("link")), "");
	EXPECT_EQ(IdentityOf(directory_ / "prepared"), "");
}

} // namespace
} // namespace tarn::dataupdate
