#include "host/library/cron.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <charconv>
#include <map>
#include <sstream>

namespace tarn::ctl {

namespace {

constexpr int kMostValues = 60;
constexpr std::time_t kMinute = 60;
constexpr std::time_t kHour = 60 * kMinute;
constexpr std::time_t kLongest = std::time_t{400} * 24 * kHour;

/** The values of one field, and whether it names any at all rather than all of them. */
struct Field {
	std::bitset<kMostValues> values;
	bool is_restricted = false;
};

struct Range {
	int first;
	int last;
};

/** Minute, hour, day of the month, month, day of the week, in which 7 is Sunday as well. */
constexpr std::array<Range, 5> kRanges = {Range{0, 59}, Range{0, 23}, Range{1, 31}, Range{1, 12}, Range{0, 7}};

std::optional<int> ParseNumber(const std::string& text) {
	int number = 0;
	const char* const end = text.data() + text.size();
	const auto result = std::from_chars(text.data(), end, number);
	return result.ec == std::errc() && result.ptr == end ? std::optional(number) : std::nullopt;
}

/** What stands before a separator, which is then taken away with it; all of the text without one. */
std::string Cut(std::string& text, char separator) {
	const std::size_t at = text.find(separator);
	std::string before = text.substr(0, at);
	text = at == std::string::npos ? "" : text.substr(at + 1);
	return before;
}

std::optional<Range> ParseRange(std::string text, const Range& allowed) {
	if (text == "*") {
		return allowed;
	}
	const std::optional<int> first = ParseNumber(Cut(text, '-'));
	const std::optional<int> last = text.empty() ? first : ParseNumber(text);
	const bool fits = first && last && allowed.first <= *first && *first <= *last && *last <= allowed.last;
	return fits ? std::optional(Range{*first, *last}) : std::nullopt;
}

/** One of the parts between commas: "*", "5", "1-5", each perhaps with "/2". */
bool TakePart(std::string part, const Range& allowed, Field& field) {
	const bool has_step = part.find('/') != std::string::npos;
	const std::optional<Range> range = ParseRange(Cut(part, '/'), allowed);
	const std::optional<int> step = has_step ? ParseNumber(part) : std::optional(1);
	if (!range || !step || *step < 1) {
		return false;
	}
	// A wider step names the first value alone.
	for (int value = range->first; value <= range->last; value += std::min(*step, kMostValues)) {
		field.values.set(static_cast<std::size_t>(value));
	}
	return true;
}

std::optional<Field> ParseField(std::string text, const Range& allowed) {
	Field field;
	field.is_restricted = text.empty() || text.front() != '*';
	do {
		if (!TakePart(Cut(text, ','), allowed, field)) {
			return std::nullopt;
		}
	} while (!text.empty());
	return field;
}

using Fields = std::array<Field, kRanges.size()>;

std::optional<Fields> ParseFields(const std::string& line) {
	std::istringstream words(line);
	Fields fields;
	for (std::size_t at = 0; at < fields.size(); ++at) {
		std::string word;
		words >> word;
		const std::optional<Field> field = ParseField(word, kRanges[at]);
		if (!field) {
			return std::nullopt;
		}
		fields[at] = *field;
	}
	return fields;
}

std::string WithoutNickname(const std::string& line) {
	static const std::map<std::string, std::string> kNicknames = {{"@hourly", "0 * * * *"}, {"@daily", "0 0 * * *"},
	    {"@midnight", "0 0 * * *"}, {"@weekly", "0 0 * * 0"}, {"@monthly", "0 0 1 * *"}, {"@yearly", "0 0 1 1 *"},
	    {"@annually", "0 0 1 1 *"}};
	std::string first;
	std::istringstream(line) >> first;
	const auto found = kNicknames.find(first);
	return found == kNicknames.end() ? line : found->second;
}

bool Has(const Field& field, int value) {
	return field.values.test(static_cast<std::size_t>(value));
}

/** Days that both fields restrict are those that either names. */
bool IsDay(const Fields& fields, const std::tm& time) {
	const Field& of_month = fields[2];
	const Field& of_week = fields[4];
	const bool fits_month = Has(of_month, time.tm_mday);
	const bool fits_week = Has(of_week, time.tm_wday) || (time.tm_wday == 0 && Has(of_week, 7));
	const bool fits =
	    of_month.is_restricted && of_week.is_restricted ? fits_month || fits_week : fits_month && fits_week;
	return fits && Has(fields[3], time.tm_mon + 1);
}

} // namespace

std::optional<std::time_t> NextCronTime(const std::string& line, std::time_t now) {
	const std::optional<Fields> fields = ParseFields(WithoutNickname(line));
	if (!fields) {
		return std::nullopt;
	}
	std::time_t time = now - now % kMinute + kMinute;
	while (time < now + kLongest) {
		std::tm local{};
		if (localtime_r(&time, &local) == nullptr) {
			return std::nullopt;
		}
		if (!IsDay(*fields, local) || !Has((*fields)[1], local.tm_hour)) {
			time += (kMinute - local.tm_min) * kMinute; // To the next hour.
		} else if (!Has((*fields)[0], local.tm_min)) {
			time += kMinute;
		} else {
			return time;
		}
	}
	return std::nullopt;
}

} // namespace tarn::ctl
