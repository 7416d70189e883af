#include "host/terminal/status_report.h"

#include "host/terminal/text.h"

namespace tarn::ctl {

namespace {

template<typename T>
Json::Value ToJson(const std::optional<T>& value) {
	return value ? Json::Value(*value) : Json::Value();
}

Json::Value ToJson(const std::optional<std::int64_t>& value) {
	return value ? Json::Value(Json::Int64{*value}) : Json::Value();
}

std::string YesNo(bool value) {
	return value ? "yes" : "no";
}

std::string FormatState(const StatusRow& row) {
	if (row.updating) {
		return "updating";
	}
	if (!row.installed_version) {
		return "not installed";
	}
	if (row.unfinished) {
		return "unfinished";
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
	    row.remote_version ? std::to_string(*row.remote_version) : "unknown", FormatState(row), FormatAge(row, now),
	    YesNo(row.scheduled), row.install_dir.value_or("- (no volume)")};
}

} // namespace

std::optional<bool> IsUpToDate(const StatusRow& row) {
	if (row.unfinished) {
		return false;
	}
	if (!row.remote_version) {
		return std::nullopt;
	}
	return row.installed_version && *row.installed_version == *row.remote_version;
}

std::optional<bool> IsAboveOffered(const StatusRow& row) {
	if (row.unfinished) {
		return false;
	}
	if (!row.remote_version) {
		return std::nullopt;
	}
	return row.installed_version && *row.installed_version > *row.remote_version;
}

std::string FormatStatusTable(const std::vector<StatusRow>& rows, std::time_t now) {
	std::vector<std::vector<std::string>> table = {
	    {"DATABASE", "INSTALLED", "OFFERED", "STATE", "AGE", "SCHEDULED", "DIRECTORY"}};
	for (const StatusRow& row : rows) {
		table.push_back(FormatRow(row, now));
	}
	return FormatTable(table);
}

Json::Value StatusToJson(const std::vector<StatusRow>& rows, std::time_t now) {
	Json::Value array(Json::arrayValue);
	for (const StatusRow& row : rows) {
		Json::Value object(Json::objectValue);
		object["id"] = row.id;
		object["installed_version"] = ToJson(row.installed_version);
		object["remote_version"] = ToJson(row.remote_version);
		if (!row.remote_error.empty()) {
			object["remote_error"] = row.remote_error;
		}
		object["up_to_date"] = ToJson(IsUpToDate(row));
		object["above_offered"] = ToJson(IsAboveOffered(row));
		object["published"] = ToJson(row.published);
		object["age_seconds"] = ToJson(Age(row, now));
		object["scheduled"] = row.scheduled;
		object["updating"] = row.updating;
		object["unfinished"] = row.unfinished;
		object["install_dir"] = ToJson(row.install_dir);
		object["volume"] = ToJson(row.volume);
		if (!row.volume_problem.empty()) {
			object["volume_problem"] = row.volume_problem;
		}
		array.append(object);
	}
	return array;
}

} // namespace tarn::ctl
