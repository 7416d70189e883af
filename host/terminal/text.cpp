#include "host/terminal/text.h"

#include <json/writer.h>

#include <algorithm>
#include <array>
#include <locale>
#include <sstream>

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

constexpr int kDigitsOfDouble = 17;

std::string Escape(const std::string& text) {
	std::string escaped;
	for (const char character : text) {
		if (character == '\n') {
			escaped += "\\n";
		} else {
			escaped +=
			    character == '\\' || character == '"' ? std::string("\\") + character : std::string(1, character);
		}
	}
	return escaped;
}

std::string FormatLabels(const Labels& labels) {
	std::string text;
	for (const auto& [name, value] : labels) {
		text += (text.empty() ? "" : ",") + name + "=\"" + Escape(value) + "\"";
	}
	return text.empty() ? "" : "{" + text + "}";
}

/** In the same way in every language; whole numbers up to 17 digits without a point. */
std::string FormatValue(double value) {
	std::ostringstream text;
	text.imbue(std::locale::classic());
	text.precision(kDigitsOfDouble);
	text << value;
	return text.str();
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

void Metrics::Add(const std::string& name, const std::string& help, const Labels& labels, double value) {
	auto family =
	    std::find_if(families_.begin(), families_.end(), [&](const Family& known) { return known.name == name; });
	if (family == families_.end()) {
		family = families_.insert(families_.end(), {name, help, ""});
	}
	family->samples += name + FormatLabels(labels) + " " + FormatValue(value) + "\n";
}

std::string Metrics::Text() const {
	std::string text;
	for (const Family& family : families_) {
		text += "# HELP " + family.name + " " + family.help + "\n# TYPE " + family.name + " gauge\n" + family.samples;
	}
	return text;
}

} // namespace tarn::ctl
