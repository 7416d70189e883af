/** @file Texts for people. */
#ifndef HOST_TERMINAL_TEXT_H
#define HOST_TERMINAL_TEXT_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace tarn::ctl {

/**
 * A foreign text made safe for a terminal and a single line: whatever is not printable ASCII becomes a space (white
 * space) or "?", and a text of more than so many characters is cut and ends in "...".
 */
std::string Printable(const std::string& text, size_t most_characters);

/** "999 B", "12.3 MB": decimal units, as disks are sold and networks are rated. */
std::string FormatBytes(uint64_t bytes);

/** "59 min", "47 h", "12 d": of that unit only whole ones; a negative duration is "in the future". */
std::string FormatDuration(int64_t seconds);

/** Local time of day, "14:05". */
std::string FormatClock(std::time_t instant);

/** Rows as columns of equal width, two blanks apart, each row ending in a newline without blanks before it. */
std::string FormatTable(const std::vector<std::vector<std::string>>& rows);

bool StartsWith(const std::string& text, const std::string& prefix);

} // namespace tarn::ctl

#endif
