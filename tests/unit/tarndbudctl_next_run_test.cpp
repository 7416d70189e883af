#include "host/library/cron.h"
#include "host/library/next_run.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace tarn::ctl {
namespace {

/** Sunday, 2026-11-22, in UTC, which these tests take for local time. */
std::time_t At(int hour, int minute, int second = 0, int day = 22) {
	std::tm time{};
	time.tm_year = 126;
	time.tm_mon = 10;
	time.tm_mday = day;
	time.tm_hour = hour;
	time.tm_min = minute;
	time.tm_sec = second;
	return timegm(&time);
}

class NextRunTest : public testing::Test {
public:
	NextRunTest(const NextRunTest&) = delete;
	NextRunTest& operator=(const NextRunTest&) = delete;

protected:
	NextRunTest() {
		setenv("TZ", "UTC", 1);
		tzset();
	}
	~NextRunTest() override {
		unsetenv("TZ");
		tzset();
	}
};

TEST_F(NextRunTest, FindsTheNextMinuteOfALine) {
	EXPECT_EQ(NextCronTime("17 * * * * root x", At(6, 16, 59)), At(6, 17));
	EXPECT_EQ(NextCronTime("17 * * * * root x", At(6, 17)), At(7, 17));
	EXPECT_EQ(NextCronTime("17 * * * * root x", At(23, 17)), At(0, 17, 0, 23));
	EXPECT_EQ(NextCronTime("*/20 3,5 * * * root x", At(3, 41)), At(5, 0));
	EXPECT_EQ(NextCronTime("10-30/10 6 * * * root x", At(6, 11)), At(6, 20));
	EXPECT_EQ(NextCronTime("@daily root x", At(6, 11)), At(0, 0, 0, 23));
	// A step beyond the field's end names the first value alone.
	EXPECT_EQ(NextCronTime("5-30/2147483647 * * * * root x", At(6, 6)), At(7, 5));
}

TEST_F(NextRunTest, ObeysDaysOfMonthAndWeek) {
	EXPECT_EQ(NextCronTime("0 3 * * 1-5 root x", At(6, 0)), At(3, 0, 0, 23));
	EXPECT_EQ(NextCronTime("0 7 * * 7 root x", At(6, 0)), At(7, 0));
	EXPECT_EQ(NextCronTime("0 7 25 * * root x", At(6, 0)), At(7, 0, 0, 25));
	// Both restricted: either.
	EXPECT_EQ(NextCronTime("0 7 25 * 2 root x", At(6, 0)), At(7, 0, 0, 24));
	EXPECT_EQ(NextCronTime("0 7 * 12 * root x", At(6, 0)), At(7, 0, 0, 31));
}

TEST_F(NextRunTest, RefusesWhatItDoesNotUnderstand) {
	for (const char* line : {"", "17", "60 * * * * root x", "* 24 * * * root x", "x * * * * root x",
	         "5-1 * * * * root x", "*/0 * * * * root x", "0 0 0 * * root x", "* * * jan * root x",
	         "1,,2 * * * * root x", "-1 * * * * root x", "0 0 31 2 * root x"}) {
		EXPECT_EQ(NextCronTime(line, At(6, 0)), std::nullopt) << line;
	}
}

TEST_F(NextRunTest, TakesTheFirstLineOfATableThatUpdates) {
	EXPECT_EQ(NextRunByTable("# 1 * * * * root tarndbudctl update\nMAILTO=x\n\n 5 8 * * * root sleep 3 && tarndbudctl "
	                         "update --no-wait\n9 7 * * * root tarndbudctl update\n",
	              At(6, 0)),
	    At(8, 5));
	EXPECT_EQ(NextRunByTable("1 * * * * root tarndbudctl metrics\n", At(6, 0)), std::nullopt);
}

TEST_F(NextRunTest, ReadsWhatSystemdTellsOfAnActiveTimer) {
	const auto moment = [](const std::string& properties) {
		const std::optional<NextRun> run = ParseTimer(properties);
		return run ? run->time : std::nullopt;
	};
	EXPECT_EQ(moment("NextElapseUSecRealtime=Mon 2026-11-23 03:12:45 UTC\nActiveState=active\n"), At(3, 12, 45, 23));
	EXPECT_EQ(moment("ActiveState=active\nNextElapseUSecRealtime=@1795403565\n"), 1795403565);
	EXPECT_FALSE(ParseTimer("NextElapseUSecRealtime=Mon 2026-11-23 03:12:45 UTC\nActiveState=inactive\n"));
	EXPECT_FALSE(ParseTimer(""));
}

TEST_F(NextRunTest, TellsATimerWhoseRunIsAtWorkFromOneThatTellsNoTime) {
	const auto running = ParseTimer("NextElapseUSecRealtime=\nActiveState=active\nSubState=running\n");
	ASSERT_TRUE(running);
	EXPECT_TRUE(running->is_running);
	EXPECT_FALSE(running->time);
	const auto waiting = ParseTimer("NextElapseUSecRealtime=\nActiveState=active\nSubState=waiting\n");
	ASSERT_TRUE(waiting);
	EXPECT_FALSE(waiting->is_running);
	EXPECT_EQ(waiting->by, kTimerUnit);
}

} // namespace
} // namespace tarn::ctl
