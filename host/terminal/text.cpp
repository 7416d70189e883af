#include "host/terminal/text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>

namespace tarn::ctl {

namespace {

constexpr char kEllipsis[] = "...";

char PrintableCharacter(char character) {
	if (character == '\t' || character == '\n' || character == '\r') {
		return ' ';
	}
	return character >= ' ' && character <= '~' ? character : '?';
}

std::vector<size_t> ColumnWidths(const std::vector<std::vector<std::string>>& rows) {
	std::vector<size_t> widths;
	for (const std::vector<std::string>& row : rows) {
		widths.resize(std::max(widths.size(), row.size()));
		for (size_t column = 0; column < row.size(); ++column) {
			widths[column] = std::max(widths[column], row[column].size());
		}
	}
	return widths;
}

} // namespace

std::string Printable(const std::string& text, size_t most_characters) {
	std::string printable;
	std::transform(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(std::min(text.size(), most_characters)),
	    std::back_inserter(printable), PrintableCharacter);
	return text.size() > most_characters ? printable + kEllipsis : printable;
}

std::string FormatBytes(uint64_t bytes) {
	constexpr std::array<const char*, 5> kUnits = {"kB", "MB", "GB", "TB", "PB"};
	constexpr double kStep = 1000;
	// What would be rounded up to four digits takes the next unit.
	constexpr double kMostShown = 999.95;
	if (bytes < 1000) {
		return std::to_string(bytes) + " B";
	}
	double value = static_cast<double>(bytes) / kStep;
	size_t unit = 0;
	while (value >= kMostShown && unit + 1 < kUnits.size()) {
		value /= kStep;
		++unit;
	}
	std::array<char, 32> buffer{};
	std::snprintf(buffer.data(), buffer.size(), "%.1f %s", value, kUnits.at(unit));
	return buffer.data();
}

std::string FormatDuration(int64_t seconds) {
	constexpr int64_t kMinute = 60;
	constexpr int64_t kHour = 60 * kMinute;
	constexpr int64_t kDay = 24 * kHour;
	if (seconds < 0) {
		return "in the future";
	}
	if (seconds < kHour) {
		return std::to_string(seconds / kMinute) + " min";
	}
	return seconds < 2 * kDay ? std::to_string(seconds / kHour) + " h" : std::to_string(seconds / kDay) + " d";
}

std::string FormatClock(std::time_t instant) {
	std::tm local{};
	std::array<char, 8> buffer{};
	if (localtime_r(&instant, &local) == nullptr || std::strftime(buffer.data(), buffer.size(), "%H:%M", &local) == 0) {
		return "?";
	}
	return buffer.data();
}

std::string FormatTable(const std::vector<std::vector<std::string>>& rows) {
	const std::vector<size_t> widths = ColumnWidths(rows);
	std::string table;
	for (const std::vector<std::string>& row : rows) {
		std::string line;
		for (size_t column = 0; column < row.size(); ++column) {
			line += row[column] + std::string(widths[column] - row[column].size() + 2, ' ');
		}
		line.erase(line.find_last_not_of(' ') + 1);
		table += line + '\n';
	}
	return table;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
	return text.compare(0, prefix.size(), prefix) == 0;
}

} // namespace tarn::ctl
