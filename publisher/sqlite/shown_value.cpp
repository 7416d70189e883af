#include "publisher/sqlite/shown_value.h"

#include "base/text.h"
#include "publisher/common/utf8.h"

#include <algorithm>
#include <cstdlib>
#include <optional>

namespace tarn::publisher {

namespace {

constexpr std::size_t kMostCharacters = 48;
constexpr std::size_t kContext = 12; // bytes that are shown before a difference

/** Whether a character is written as it is: no control, and no mark of direction. */
bool IsShown(char32_t character) {
	return !IsControl(character) && character != 0x200E && character != 0x200F;
}

/** Appends the first characters of a text; returns how many bytes of it they are. */
std::size_t AppendShown(std::string& shown, std::string_view text, std::size_t most_characters) {
	std::string_view rest = text;
	for (std::size_t count = 0; !rest.empty() && count < most_characters; ++count) {
		const std::string_view from = rest;
		const std::optional<char32_t> character = TakeCharacter(rest);
		if (character && IsShown(*character)) {
			shown += from.substr(0, from.size() - rest.size());
		} else {
			const auto byte = static_cast<unsigned char>(from.front());
			shown += "\\x" + Hex(&byte, 1);
			rest = from.substr(1);
		}
	}
	return text.size() - rest.size();
}

/** A text in quotes; of a long text, some characters from a byte on, and its size. */
std::string Quoted(std::string_view text, std::size_t from) {
	std::string shown = from > 0 ? "'..." : "'";
	const std::size_t end = from + AppendShown(shown, text.substr(from), kMostCharacters);
	shown += end < text.size() ? "...'" : "'";
	return end < text.size() || from > 0 ? shown + " (" + HumanSize(text.size()) + ")" : shown;
}

std::string RealText(double real) {
	const std::string shortest = Digits(15, real);
	const std::string digits = std::strtod(shortest.c_str(), nullptr) == real ? shortest : Digits(17, real);
	return digits.find_first_of(".en") == std::string::npos ? digits + ".0" : digits;
}

std::string ShownFrom(const SqlValue& value, bool is_utf8, std::size_t from) {
	switch (value.type) {
	case SQLITE_INTEGER:
		return std::to_string(value.integer);
	case SQLITE_FLOAT:
		return RealText(value.Real());
	case SQLITE_TEXT:
		return is_utf8 ? Quoted(value.bytes, from) : "a text of " + HumanSize(value.bytes.size());
	case SQLITE_BLOB:
		return "a blob of " + HumanSize(value.bytes.size());
	default:
		return "NULL";
	}
}

/** Where to begin so that the first difference of two texts is shown: at a character of both. */
std::size_t BeginOfChange(std::string_view before, std::string_view after) {
	const auto place = std::mismatch(before.begin(),
	    before.begin() + static_cast<std::ptrdiff_t>(std::min(before.size(), after.size())), after.begin());
	const auto same = static_cast<std::size_t>(place.first - before.begin());
	if (same <= kMostCharacters / 2 || std::max(before.size(), after.size()) <= kMostCharacters) {
		return 0;
	}
	std::size_t from = same - kContext;
	while (from > 0 && IsContinuation(before[from])) {
		--from;
	}
	return from;
}

} // namespace

std::string ShownText(std::string_view text) {
	std::string shown;
	AppendShown(shown, text, text.size());
	return shown;
}

std::string ShownValue(const SqlValue& value, bool is_utf8) {
	return ShownFrom(value, is_utf8, 0);
}

std::pair<std::string, std::string> ShownChange(const SqlValue& before, const SqlValue& after, bool is_utf8) {
	const bool are_texts = before.type == SQLITE_TEXT && after.type == SQLITE_TEXT;
	const std::size_t from = are_texts ? BeginOfChange(before.bytes, after.bytes) : 0;
	return {ShownFrom(before, is_utf8, from), ShownFrom(after, is_utf8, from)};
}

} // namespace tarn::publisher
