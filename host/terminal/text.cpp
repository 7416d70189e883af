#include "host/terminal/text.h"

#include <json/writer.h>

#include <algorithm>
#include <array>

namespace tarn::ctl {

namespace {

std::vector<std::size_t> ColumnWidths(const std::vector<std::vector<std::string>>& rows) {
	std::vector<std::size_t> widths;
	for (const std::vector<std::string>& row : rows) {
		widths.resize(std::max(widths.size(), row.size()));
		for (std::size_t column = 0; column < row.size(); ++column) {
			widths[column] = std::max(widths[column], row[column].size());
		}
	}
	return widths;
}

} // namespace

std::string FormatDuration(std::int64_t seconds) {
	constexpr std::int64_t kMinute = 60;
	constexpr std::int64_t kHour = 60 * kMinute;
	constexpr std::int64_t kDay = 24 * kHour;
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
	const std::vector<std::size_t> widths = ColumnWidths(rows);
	std::string table;
	for (const std::vector<std::string>& row : rows) {
		std::string line;
		for (std::size_t column = 0; column < row.size(); ++column) {
			line += row[column] + std::string(widths[column] - row[column].size() + 2, ' ');
		}
		line.erase(line.find_last_not_of(' ') + 1);
		table += line + '\n';
	}
	return table;
}

std::string FormatJson(const Json::Value& value) {
	Json::StreamWriterBuilder builder;
	builder["indentation"] = "\t";
	return Json::writeString(builder, value) + "\n";
}

} // namespace tarn::ctl
