/** @file When the scheduled databases are updated next. */
#ifndef HOST_LIBRARY_NEXT_RUN_H
#define HOST_LIBRARY_NEXT_RUN_H

#include <ctime>
#include <optional>
#include <string>

namespace tarn::ctl {

constexpr char kTimerUnit[] = "tarndbud-update.timer";
constexpr char kCronTable[] = "/etc/cron.d/tarndbud";

struct NextRun {
	std::optional<std::time_t> time; ///< No value while a run is at work, and when the scheduler does not tell it.
	std::string by;                  ///< The timer's name, or the path of cron's table.
	bool is_running = false;         ///< Whether the timer's run is at work.
};

/** Asks systemd for its timer, and looks into cron's table where no timer is active; no value without either. */
[[nodiscard]] std::optional<NextRun> FindNextRun();

/** What "systemctl show" tells of the timer, its times in UTC; no value for a timer that is not active. */
[[nodiscard]] std::optional<NextRun> ParseTimer(const std::string& properties);

/** The next run of the first line of a table that updates; no value when the table has none. */
[[nodiscard]] std::optional<std::time_t> NextRunByTable(const std::string& table, std::time_t now);

} // namespace tarn::ctl

#endif
