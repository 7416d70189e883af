#include "publisher/sqlite/shown_value.h"

#include "base/text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tarn::publisher {

namespace {

constexpr std::size_t kMostCharacters = 48;
constexpr std::size_t kContext = 12; // bytes that are shown before a difference

bool IsContinuation(char byte) {
	return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

/** How many bytes a character takes by its first byte; 0 for a byte that begins none. */
std::size_t LengthBy(unsigned char first) {
	if (first < 0x80U) {
		return 1;
	}
	if (first < 0xC2U || first > 0xF4U) {
		return 0;
	}
	return first >= 0xF0U ? 4 : first >= 0xE0U ? 3 : 2;
}

/** Whether a sequence of the right form is a character: not too long, no surrogate, not above the last one. */
bool IsCharacter(std::string_view sequence) {
	const auto first = static_cast<unsigned char>(sequence[0]);
	const auto second = static_cast<unsigned char>(sequence.size() > 1 ? sequence[1] : '\0');
	return !(first == 0xE0U && second < 0xA0U) && !(first == 0xEDU && second >= 0xA0U) &&
	       !(first == 0xF0U && second < 0x90U) && !(first == 0xF4U && second >= 0x90U);
}

/** Marks that turn the direction of what follows, and separators of lines. */
bool IsLayoutMark(std::string_view sequence) {
	constexpr std::string_view kPrefix = "\xE2\x80";
	const auto last = static_cast<unsigned char>(sequence.back());
	return (sequence.size() == 3 && StartsWith(sequence, kPrefix) &&
	           ((last >= 0xA8U && last <= 0xAEU) || last == 0x8EU || last == 0x8FU)) ||
	       (sequence.size() == 3 && StartsWith(sequence, "\xE2\x81") && last >= 0xA6U && last <= 0xA9U);
}

bool IsControl(std::string_view sequence) {
	const auto first = static_cast<unsigned char>(sequence[0]);
	const bool is_high = first == 0xC2U && static_cast<unsigned char>(sequence[1]) < 0xA0U;
	return first < 0x20U || first == 0x7FU || is_high || IsLayoutMark(sequence);
}

/** The bytes of the character at the beginning of a text; 0 when there is none that can be shown. */
std::size_t ShownLength(std::string_view text) {
	const std::size_t length = LengthBy(static_cast<unsigned char>(text[0]));
	const std::string_view sequence = text.substr(0, length);
	const bool is_whole =
	    length > 0 && sequence.size() == length && std::all_of(sequence.begin() + 1, sequence.end(), IsContinuation);
	return is_whole && IsCharacter(sequence) && !IsControl(sequence) ? length : 0;
}

/** Appends the first characters of a text; returns how many bytes of it they are. */
std::size_t AppendShown(std::string& shown, std::string_view text, std::size_t most_characters) {
	std::size_t at = 0;
	for (std::size_t count = 0; at < text.size() && count < most_characters; ++count) {
		if (const std::size_t length = ShownLength(text.substr(at)); length > 0) {
			shown += text.substr(at, length);
			at += length;
		} else {
			const auto byte = static_cast<unsigned char>(text[at++]);
			shown += "\\x" + Hex(&byte, 1);
		}
	}
	return at;
}

/** A text in quotes; of a long text, some characters from a byte on, and its size. */
std::string Quoted(std::string_view text, std::size_t from) {
	std::string shown = from > 0 ? "'..." : "'";
	const std::size_t end = from + AppendShown(shown, text.substr(from), kMostCharacters);
	shown += end < text.size() ? "...'" : "'";
	return end < text.size() || from > 0 ? shown + " (" + HumanSize(text.size()) + ")" : shown;
}

std::string RealText(const SqlValue& value) {
	double real = 0;
	std::memcpy(&real, &value.integer, sizeof(real));
	std::array<char, 40> text{};
	const auto print = [&](int digits) { std::snprintf(text.data(), text.size(), "%.*g", digits, real); };
	print(15);
	if (std::strtod(text.data(), nullptr) != real) {
		print(17);
	}
	const std::string digits = text.data();
	return digits.find_first_of(".en") == std::string::npos ? digits + ".0" : digits;
}

std::string ShownFrom(const SqlValue& value, bool is_utf8, std::size_t from) {
	switch (value.type) {
	case SQLITE_INTEGER:
		return std::to_string(value.integer);
	case SQLITE_FLOAT:
		return RealText(value);
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
