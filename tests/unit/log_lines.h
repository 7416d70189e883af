/** @file Syslog lines taken apart, for comparison. */
#ifndef TESTS_UNIT_LOG_LINES_H
#define TESTS_UNIT_LOG_LINES_H

#include "syslog_capture.h"

#include <algorithm>
#include <cctype>
#include <ostream>
#include <string>
#include <vector>

namespace tarn::test {

/** A line "<source>:<number> <text>"; source is empty when there is no such beginning. */
struct Line {
	int priority;
	std::string source;
	std::string text;

	bool operator==(const Line& other) const {
		return priority == other.priority && source == other.source && text == other.text;
	}
};

inline std::ostream& operator<<(std::ostream& out, const Line& line) {
	return out << "<" << line.priority << "> [" << line.source << "] " << line.text;
}

inline Line TakeApart(const LogLine& line) {
	const std::size_t colon = line.text.find(':');
	const std::size_t blank = line.text.find(' ');
	if (colon == std::string::npos || blank == std::string::npos || colon + 1 >= blank) {
		return {line.priority, "", line.text};
	}
	const std::string number = line.text.substr(colon + 1, blank - colon - 1);
	const bool is_number =
	    std::all_of(number.begin(), number.end(), [](unsigned char character) { return std::isdigit(character) != 0; });
	if (!is_number || number.front() == '0') {
		return {line.priority, "", line.text};
	}
	return {line.priority, line.text.substr(0, colon), line.text.substr(blank + 1)};
}

/** All lines so far. */
inline std::vector<Line> Lines(const SyslogCapture& log) {
	std::vector<Line> lines;
	for (const LogLine& line : log.Lines()) {
		lines.push_back(TakeApart(line));
	}
	return lines;
}

/** Those of one source file. */
inline std::vector<Line> LinesOf(const SyslogCapture& log, const std::string& source) {
	std::vector<Line> lines = Lines(log);
	lines.erase(std::remove_if(lines.begin(), lines.end(), [&](const Line& line) { return line.source != source; }),
	    lines.end());
	return lines;
}

} // namespace tarn::test

#endif
