#include "bench/model/queue.h"
#include "bench/model/schedule.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace tarn::fleet {

namespace {

constexpr std::uint32_t kMany = 2000;

Parameters Plain() {
	Parameters parameters;
	parameters.length = 30 * kDay;
	parameters.timer = {6 * kHour, 6 * kHour, false, kMinute, true};
	parameters.habits = {Habit()};
	parameters.zones = {Zone()};
	parameters.channels = {{"1", 1}};
	return parameters;
}

/** On from eight to ten o'clock every day. */
Habit TwoHours() {
	Habit habit;
	habit.begin = 8 * kHour;
	habit.hours = 2 * kHour;
	return habit;
}

std::vector<Moment> Runs(const Parameters& parameters, std::uint32_t device) {
	const Schedule schedule(parameters, Chance(parameters.seed));
	std::vector<Moment> runs;
	for (Moment time = schedule.First(device); time != kNever; time = schedule.Next(device, time)) {
		runs.push_back(time);
	}
	return runs;
}

double ShareThatRuns(const Parameters& parameters) {
	std::uint32_t count = 0;
	for (std::uint32_t device = 0; device < kMany; ++device) {
		count += Runs(parameters, device).empty() ? 0U : 1U;
	}
	return static_cast<double>(count) / kMany;
}

} // namespace

TEST(FleetSchedule, ADeviceThatIsAlwaysOnRunsOnceInEachPeriod) {
	Parameters parameters = Plain();
	parameters.timer.delay = 5 * kHour;
	for (std::uint32_t device = 0; device < 100; ++device) {
		const std::vector<Moment> runs = Runs(parameters, device);
		ASSERT_EQ(runs.size(), 30U * 4);
		for (std::size_t at = 0; at < runs.size(); ++at) {
			const Moment calendar = static_cast<Moment>(at) * 6 * kHour;
			EXPECT_GE(runs[at], calendar);
			EXPECT_LE(runs[at], calendar + 5 * kHour + kMinute);
		}
	}
}

TEST(FleetSchedule, ADelayBeyondTheNextTimeOfTheCalendarSkipsThatTime) {
	Parameters parameters = Plain();
	parameters.timer.accuracy = 3 * kHour;
	const std::vector<Moment> runs = Runs(parameters, 1);
	EXPECT_LT(runs.size(), 30U * 4 - 5);
	EXPECT_GT(runs.size(), 30U * 2);
}

TEST(FleetSchedule, AFixedDelayIsTheSameEveryDayAndAnotherOnAnotherDevice) {
	Parameters parameters = Plain();
	parameters.timer = {kDay, 6 * kHour, true, kMinute, true};
	const std::vector<Moment> runs = Runs(parameters, 1);
	for (std::size_t at = 1; at < runs.size(); ++at) {
		EXPECT_EQ(runs[at] - runs[at - 1], kDay);
	}
	EXPECT_NE(runs[0], Runs(parameters, 2)[0]);
	parameters.timer.fixed_delay = false;
	const std::vector<Moment> drawn = Runs(parameters, 1);
	EXPECT_NE(drawn[1] - drawn[0], drawn[2] - drawn[1]);
}

TEST(FleetSchedule, RunsOfAFleetSpreadEvenlyOverTheDelay) {
	const Parameters parameters = Plain();
	std::vector<int> hours(6);
	for (std::uint32_t device = 0; device < kMany; ++device) {
		++hours[static_cast<std::size_t>(Runs(parameters, device)[1] / kHour) % hours.size()];
	}
	for (const int count : hours) {
		EXPECT_NEAR(count, kMany / 6, 70); // Four standard deviations.
	}
}

TEST(FleetSchedule, AllRunsOfADeviceComeAtItsOwnMomentOfTheMinute) {
	const std::vector<Moment> runs = Runs(Plain(), 5);
	for (const Moment time : runs) {
		EXPECT_EQ(time % kMinute, runs[0] % kMinute);
	}
}

TEST(FleetSchedule, TheCalendarIsThatOfTheDevicesZone) {
	Parameters parameters = Plain();
	parameters.timer = {kDay, 0, true, kSecond, true};
	parameters.zones = {{1, 5 * kHour}};
	EXPECT_EQ(Runs(parameters, 1)[0] / kMinute, (24 - 5) * 60);
}

TEST(FleetSchedule, AMissedRunBeginsItsDelayAgainAtTheBoot) {
	Parameters parameters = Plain();
	parameters.timer = {kDay, kHour, true, kSecond, true};
	parameters.habits = {TwoHours()};
	for (std::uint32_t device = 0; device < 100; ++device) {
		const std::vector<Moment> runs = Runs(parameters, device);
		ASSERT_EQ(runs.size(), 30U) << device;
		EXPECT_GE(runs[3], 3 * kDay + 8 * kHour);
		EXPECT_LE(runs[3], 3 * kDay + 9 * kHour + kSecond);
	}
	parameters.timer.persistent = false;
	EXPECT_TRUE(Runs(parameters, 1).empty()) << "midnight never comes while the device is on";
}

TEST(FleetSchedule, AFixedDelayBeyondTheUsualUptimeNeverEnds) {
	Parameters parameters = Plain();
	parameters.habits = {TwoHours()};
	parameters.timer.fixed_delay = true;
	EXPECT_NEAR(ShareThatRuns(parameters), 1.0 / 3, 0.05);
	parameters.timer.fixed_delay = false;
	EXPECT_EQ(ShareThatRuns(parameters), 1);
}

TEST(FleetSchedule, ADeviceThatSleepsRunsWhenItWakes) {
	Parameters parameters = Plain();
	parameters.timer = {kDay, kMinute, true, kSecond, true};
	parameters.habits = {TwoHours()};
	parameters.habits[0].resumes = true;
	const std::vector<Moment> runs = Runs(parameters, 1);
	EXPECT_EQ(runs[2] / kMinute, (2 * kDay + 8 * kHour) / kMinute);
}

TEST(FleetSchedule, AfterABlackoutADeviceThatSleptBootsAsWell) {
	Parameters parameters = Plain();
	parameters.habits[0].resumes = true;
	parameters.outages = {{Place::kDevices, {2 * kDay, 3 * kDay}, 1, 0}};
	int at_once = 0;
	for (std::uint32_t device = 0; device < 200; ++device) {
		for (const Moment time : Runs(parameters, device)) {
			at_once += time >= 3 * kDay && time < 3 * kDay + 2 * kMinute ? 1 : 0;
		}
	}
	EXPECT_LT(at_once, 20);
}

TEST(FleetSchedule, DevicesThatWereBlackedOutRunWithinTheDelayAfterIt) {
	Parameters parameters = Plain();
	parameters.outages = {{Place::kDevices, {2 * kDay, 3 * kDay}, 1, 0}};
	for (std::uint32_t device = 0; device < 200; ++device) {
		int inside = 0;
		int after = 0;
		for (const Moment time : Runs(parameters, device)) {
			// One that elapsed a moment before may still wait for its moment of the minute.
			inside += time >= 2 * kDay + kMinute && time < 3 * kDay ? 1 : 0;
			after += time >= 3 * kDay && time < 3 * kDay + 6 * kHour + kMinute ? 1 : 0;
		}
		EXPECT_EQ(inside, 0);
		EXPECT_GE(after, 1);
	}
}

TEST(FleetSchedule, ADeviceThatIsAwayDoesNotRun) {
	Parameters parameters = Plain();
	parameters.habits[0].away_share = 1;
	parameters.habits[0].away_length = 10 * kDay;
	std::size_t runs = 0;
	for (std::uint32_t device = 0; device < kMany; ++device) {
		runs += Runs(parameters, device).size();
	}
	// By the mean of min(exponential of 10 days, what is left of 30 days): 10 - 100 / 30 * (1 - exp(-3)) days.
	EXPECT_NEAR(static_cast<double>(runs) / kMany / 4, 30 - 6.83, 0.5);
}

TEST(FleetSchedule, TheQueueGivesEventsInTheOrderOfTime) {
	Queue queue(kHour);
	for (const Moment time : {Moment{7000}, 3 * kMinute, Moment{5000}, 2 * kHour}) {
		queue.Add(time, 1);
	}
	EXPECT_EQ(queue.Take()->milliseconds, 5000U);
	queue.Add(6000, 2);
	EXPECT_EQ(queue.Take()->device, 2U);
	EXPECT_EQ(queue.Take()->milliseconds, 7000U);
	EXPECT_EQ(queue.Take()->milliseconds, 3U * kMinute);
	EXPECT_FALSE(queue.Take()) << "what is after the end is dropped";
}

} // namespace tarn::fleet
