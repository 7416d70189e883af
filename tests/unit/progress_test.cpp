#include "dataupdate/internal/activity.h"

#include <gtest/gtest.h>

#include <memory>

namespace tarn::dataupdate {
namespace {

TEST(ProgressTest, IsIdleOutsideOfActivities) {
	EXPECT_EQ(CurrentActivity().phase, Phase::kIdle);
	EXPECT_EQ(CurrentActivity().path, "");
}

TEST(ProgressTest, ShowsTheInnermostActivityAndReturnsToTheOuterOne) {
	const ActivityScope outer(Phase::kApply, "/outer");
	AddActivityBytes(5);
	{
		const ActivityScope inner(Phase::kHash, "/inner");
		AddActivityBytes(7);
		const Activity activity = CurrentActivity();
		EXPECT_EQ(activity.phase, Phase::kHash);
		EXPECT_EQ(activity.path, "/inner");
		EXPECT_EQ(activity.bytes, 7U);
	}
	const Activity activity = CurrentActivity();
	EXPECT_EQ(activity.phase, Phase::kApply);
	EXPECT_EQ(activity.path, "/outer");
	EXPECT_EQ(activity.bytes, 5U);
}

TEST(ProgressTest, CountsHashedBytesOnlyWhereHashingIsWhatIsDone) {
	const ActivityScope outer(Phase::kApply, "/outer");
	AddHashedBytes(5);
	EXPECT_EQ(CurrentActivity().bytes, 0U);
	const ActivityScope inner(Phase::kHash, "/inner");
	AddHashedBytes(7);
	EXPECT_EQ(CurrentActivity().bytes, 7U);
}

TEST(ProgressTest, CountsEveryBeginningAndEnd) {
	const std::uint64_t serial = CurrentActivity().serial;
	{
		const ActivityScope activity(Phase::kDownload, "");
		EXPECT_EQ(CurrentActivity().serial, serial + 1);
	}
	EXPECT_EQ(CurrentActivity().serial, serial + 2);
}

TEST(ProgressTest, IsIdleAfterActivitiesThatOverlapped) {
	auto first = std::make_unique<ActivityScope>(Phase::kHash, "/first");
	auto second = std::make_unique<ActivityScope>(Phase::kDownload, "/second");
	first.reset(); // As when another thread has begun the second.
	EXPECT_EQ(CurrentActivity().path, "/second");
	second.reset();
	EXPECT_EQ(CurrentActivity().phase, Phase::kIdle);
}

} // namespace
} // namespace tarn::dataupdate
