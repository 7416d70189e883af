/** @file When a line of cron's table runs next. */
#ifndef HOST_LIBRARY_CRON_H
#define HOST_LIBRARY_CRON_H

#include <ctime>
#include <optional>
#include <string>

namespace tarn::ctl {

/**
 * The first minute after a moment, in local time, at which a line runs: "17 3 * * 1-5 root command", or "@daily root
 * command". No value for a line that cannot be understood (names of months and days are not), and when it does not run
 * within 400 days.
 */
[[nodiscard]] std::optional<std::time_t> NextCronTime(const std::string& line, std::time_t now);

} // namespace tarn::ctl

#endif
