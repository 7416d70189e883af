/** @file Texts for people. */
#ifndef HOST_TERMINAL_TEXT_H
#define HOST_TERMINAL_TEXT_H

#include <json/value.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace tarn::ctl {

/** "59 min", "47 h", "12 d": of that unit only whole ones; a negative duration is "in the future". */
std::string FormatDuration(std::int64_t seconds);

/** Local time of day, "14:05". */
std::string FormatClock(std::time_t instant);

/** Rows as columns of equal width, two blanks apart, each row ending in a newline without blanks before it. */
std::string FormatTable(const std::vector<std::vector<std::string>>& rows);

/** A JSON document as text, indented by tabs, with a newline at the end. */
std::string FormatJson(const Json::Value& value);

} // namespace tarn::ctl

#endif
