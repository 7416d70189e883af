#include "host/library/document_problem.h"

#include "base/document_limit.h"
#include "base/text.h"
#include "dataupdate/update.h"
#include "host/library/services.h"
#include "host/terminal/text.h"

#include <algorithm>
#include <charconv>
#include <vector>

namespace tarn::ctl {

namespace {

constexpr std::size_t kQuotedCharacters = 60;

std::string Quote(const std::string& text) {
	return '"' + PlainAscii(text, kQuotedCharacters) + '"';
}

std::string TypeOf(const Json::Value& value) {
	switch (value.type()) {
	case Json::nullValue:
		return "missing or null";
	case Json::intValue:
	case Json::uintValue:
	case Json::realValue:
		return "a number";
	case Json::stringValue:
		return "a string";
	case Json::booleanValue:
		return "true or false";
	case Json::arrayValue:
		return "an array";
	default:
		return "an object";
	}
}

/** The library would take "99abc" for 99, and "-5", " 5" and "+5" for numbers. */
bool IsVersion(const std::string& text) {
	int version = 0;
	return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos &&
	       std::from_chars(text.data(), text.data() + text.size(), version).ec == std::errc();
}

/** A member that a record must have: its name, what it must be, and whether it is. */
struct Field {
	const char* name;
	const char* wanted;
	bool (Json::Value::*fits)() const;
};

/** The first member of the record that is not as it must be; empty when all are. */
std::string DescribeFields(const Json::Value& record, const std::string& name, const std::vector<Field>& fields) {
	if (!record.isObject()) {
		return name + " is " + TypeOf(record) + ", not an object";
	}
	for (const Field& field : fields) {
		const Json::Value& value = record[field.name];
		if (!(value.*field.fits)()) {
			std::string problem = Quote(field.name) + " of " + name + " is ";
			problem += value.isIntegral() ? value.asString() : TypeOf(value);
			return problem + ", not " + field.wanted;
		}
	}
	return "";
}

std::string DescribeDiff(const Json::Value& diffs, const std::string& id) {
	static const std::vector<Field> kFields = {
	    {"download_link", "a string", &Json::Value::isString}, {"file_size", "a 32-bit integer", &Json::Value::isInt}};
	if (diffs.isArray() && !diffs.empty()) {
		return "\"diff_files\" of " + id + " is an array, not an object";
	}
	if (!diffs.isObject()) {
		return "";
	}
	for (const std::string& version : diffs.getMemberNames()) {
		const std::string name = "the diff package " + Quote(version) + " of " + id;
		std::string problem = DescribeFields(diffs[version], name, kFields);
		if (!problem.empty()) {
			return problem;
		}
		if (!IsVersion(version)) {
			return name + " is not named by a version number";
		}
	}
	return "";
}

std::string DescribeEntry(Json::Value entry, const Json::Value& deprecated, const std::string& id) {
	static const std::vector<Field> kFields = {{"data_version", "a string of digits", &Json::Value::isString},
	    {"last_fetch_time", "a 32-bit integer", &Json::Value::isInt},
	    {"deprecated", "true or false", &Json::Value::isBool}, {"download_link", "a string", &Json::Value::isString}};
	if (entry.isObject() && !entry.isMember("deprecated")) {
		entry["deprecated"] = deprecated;
	}
	std::string problem = DescribeFields(entry, id, kFields);
	if (problem.empty() && !IsVersion(entry["data_version"].asString())) {
		problem = "\"data_version\" of " + id + " is " + Quote(entry["data_version"].asString()) +
		          ", which is no version number";
	}
	return problem.empty() ? DescribeDiff(entry["diff_files"], id) : problem;
}

/** What is wrong outside of the entries; empty when nothing is. */
std::string DescribeFrame(const Json::Value& document) {
	if (!document.isObject()) {
		return "it is " + TypeOf(document) + ", not an object";
	}
	const Json::Value& list = document["db_list"];
	if (!list.isObject()) {
		return "its \"db_list\" is " + TypeOf(list) + ", not an object";
	}
	const Json::Value& deprecated = document["deprecated"];
	if (!deprecated.isNull() && !deprecated.isBool()) {
		return "its \"deprecated\" is " + TypeOf(deprecated) + ", not true or false";
	}
	return "";
}

} // namespace

std::string DescribePage(const CachedPage& page) {
	const std::string answer = "The answer of " + page.link;
	if (page.size > kLargestDocument) {
		return answer + " is no document of databases: it is " + HumanSize(page.size) + " long, and begins with " +
		       Quote(page.beginning);
	}
	const std::size_t start = page.beginning.find_first_not_of(" \t\r\n");
	if (start == std::string::npos) {
		return answer + " is empty, where a JSON document should be";
	}
	const char first = page.beginning[start];
	const char* kind = first == '{' || first == '[' ? " is malformed JSON or nested too deeply; it begins with "
	                                                : " is no JSON document; it begins with ";
	return answer + kind + Quote(page.beginning.substr(start));
}

bool HasPlainVersion(const Json::Value& entry) {
	return entry.isObject() && entry["data_version"].isString() && IsVersion(entry["data_version"].asString());
}

bool HasPlainDiffVersions(const Json::Value& entry) {
	const Json::Value& diffs = entry.isObject() ? entry["diff_files"] : Json::Value::nullSingleton();
	const std::vector<std::string> names = diffs.isObject() ? diffs.getMemberNames() : std::vector<std::string>();
	return std::all_of(names.begin(), names.end(), IsVersion);
}

std::string DescribeDocument(const Json::Value& document, const std::string& id) {
	std::string problem = DescribeFrame(document);
	if (problem.empty() && !document["db_list"].isMember(id)) {
		return "does not offer " + id;
	}
	if (problem.empty()) {
		problem = DescribeEntry(document["db_list"][id], document["deprecated"], id);
	}
	return "is malformed" + (problem.empty() ? "" : ": " + problem);
}

std::string DescribeCaching(std::time_t modified, std::time_t now) {
	const std::time_t end = modified + dataupdate::kFreshInfoSeconds;
	if (end < now) {
		return "";
	}
	return "; correct the server or the way to it, and run \"tarndbudctl refresh\" unless you can wait until " +
	       FormatClock(end + 1) + ", when it is asked for again";
}

} // namespace tarn::ctl
