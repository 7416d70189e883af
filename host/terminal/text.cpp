#include "host/terminal/text.h"

#include "base/text.h"

#include <boost/algorithm/string/replace.hpp>
#include <json/writer.h>

#include <algorithm>
#include <array>
#include <functional>
#include <limits>
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

std::string Escape(std::string text) {
	boost::replace_all(text, "\\", "\\\\");
	boost::replace_all(text, "\"", "\\\"");
	boost::replace_all(text, "\n", "\\n");
	return text;
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
	text.precision(std::numeric_limits<double>::max_digits10);
	text << value;
	return text.str();
}

/** Compares the installed version with the server's; no value when that is unknown, false for what is unfinished. */
template<typename Comparison>
std::optional<bool> CompareVersions(const StatusRow& row, const Comparison& compare) {
	if (row.unfinished) {
		return false;
	}
	if (!row.offered_version) {
		return std::nullopt;
	}
	return row.installed_version && compare(*row.installed_version, *row.offered_version);
}

std::optional<bool> IsUpToDate(const StatusRow& row) {
	return CompareVersions(row, std::equal_to<>());
}

std::string FormatVersionState(const StatusRow& row) {
	if (row.updating) {
		return "updating";
	}
	if (row.unfinished) {
		return "unfinished";
	}
	if (row.old_dir) {
		return "elsewhere";
	}
	if (!row.installed_version) {
		return "not installed";
	}
	if (!row.install_dir) {
		return "no volume";
	}
	const std::optional<bool> current = IsUpToDate(row);
	if (!current) {
		return "installed";
	}
	if (*IsAboveOffered(row)) {
		return "above offered";
	}
	return *current ? "up to date" : "outdated";
}

std::optional<std::int64_t> Age(const StatusRow& row, std::time_t now) {
	return row.published ? std::optional<std::int64_t>(now - *row.published) : std::nullopt;
}

std::string FormatAge(const StatusRow& row, std::time_t now) {
	if (!row.installed_version) {
		return "-";
	}
	const std::optional<std::int64_t> age = Age(row, now);
	return age ? FormatDuration(*age) : "unknown";
}

std::vector<std::string> FormatRow(const StatusRow& row, std::time_t now) {
	return {row.id, row.installed_version ? std::to_string(*row.installed_version) : "-",
	    row.offered_version ? std::to_string(*row.offered_version) : "unknown",
	    FormatVersionState(row) + (row.held ? ", held" : ""), FormatAge(row, now), row.scheduled ? "yes" : "no",
	    row.install_dir.value_or("- (no volume)")};
}

/** What is there only when it has happened, or is going to. */
void AddHistory(const StatusRow& row, Json::Value& object) {
	if (row.next_run) {
		object["next_run"] = Json::Int64{*row.next_run};
	}
	if (row.refused_version) {
		object["refused_version"] = *row.refused_version;
	}
	if (row.last_failure) {
		Json::Value& failure = object["last_failure"];
		failure["operation"] = row.last_failure->operation;
		failure["time"] = Json::Int64{row.last_failure->time};
		failure["exit_status"] = row.last_failure->exit_status;
		failure["error"] = row.last_failure->sentence;
	}
	if (row.last_success) {
		object["last_success"] = Json::Int64{*row.last_success};
	}
}

std::string Format(const Json::Value& value, const char* indentation) {
	Json::StreamWriterBuilder builder;
	builder["indentation"] = indentation;
	return Json::writeString(builder, value) + "\n";
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

std::string FormatMoment(std::time_t instant) {
	std::tm local{};
	std::array<char, 32> buffer{};
	if (localtime_r(&instant, &local) == nullptr ||
	    std::strftime(buffer.data(), buffer.size(), "%Y-%m-%d %H:%M", &local) == 0) {
		return "?";
	}
	return buffer.data();
}

std::string FormatClock(std::time_t instant) {
	const std::string moment = FormatMoment(instant);
	return moment.substr(moment.find(' ') + 1);
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
	return Format(value, "\t");
}

std::string FormatJsonLine(const Json::Value& value) {
	return Format(value, "");
}

void Metrics::AddValue(const std::string& name, const std::string& help, const Labels& labels, double value) {
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
		const char* type = EndsWith(family.name, "_total") ? " counter\n" : " gauge\n";
		text += "# HELP " + family.name + " " + family.help + "\n# TYPE " + family.name + type + family.samples;
	}
	return text;
}

std::optional<bool> IsAboveOffered(const StatusRow& row) {
	return CompareVersions(row, std::greater<>());
}

std::string FormatStatusTable(const std::vector<StatusRow>& rows, std::time_t now) {
	std::vector<std::vector<std::string>> table = {
	    {"DATABASE", "INSTALLED", "OFFERED", "STATE", "AGE", "SCHEDULED", "DIRECTORY"}};
	for (const StatusRow& row : rows) {
		table.push_back(FormatRow(row, now));
	}
	return FormatTable(table);
}

std::string FormatFailures(const std::vector<StatusRow>& rows, std::time_t now) {
	std::string text;
	for (const StatusRow& row : rows) {
		if (!row.last_failure || row.last_failure->is_over) {
			continue;
		}
		const FailureRecord& failure = *row.last_failure;
		text += row.id + ": last failure " + FormatDuration(now - failure.time) + " ago (" +
		        FormatMoment(failure.time) + ", " + failure.operation + "): " + failure.sentence + "\n";
	}
	return text;
}

Json::Value StatusToJson(const std::vector<StatusRow>& rows, std::time_t now) {
	Json::Value array(Json::arrayValue);
	for (const StatusRow& row : rows) {
		Json::Value object(Json::objectValue);
		object["id"] = row.id;
		object["installed_version"] = OrNull(row.installed_version);
		object["offered_version"] = OrNull(row.offered_version);
		if (!row.offer_error.empty()) {
			object["offer_error"] = row.offer_error;
		}
		object["up_to_date"] = OrNull(IsUpToDate(row));
		object["above_offered"] = OrNull(IsAboveOffered(row));
		object["published"] = OrNull(row.published);
		object["age_seconds"] = OrNull(Age(row, now));
		object["scheduled"] = row.scheduled;
		object["updating"] = row.updating;
		object["unfinished"] = row.unfinished;
		object["held"] = row.held;
		object["held_up_to"] = OrNull(row.held_up_to);
		if (!row.hold_problem.empty()) {
			object["hold_problem"] = row.hold_problem;
		}
		object["install_dir"] = OrNull(row.install_dir);
		if (row.old_dir) {
			object["previous_dir"] = *row.old_dir;
		}
		object["volume"] = OrNull(row.volume);
		AddHistory(row, object);
		if (!row.volume_problem.empty()) {
			object["volume_problem"] = row.volume_problem;
		}
		array.append(object);
	}
	return array;
}

} // namespace tarn::ctl
