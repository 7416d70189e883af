#include "publisher/sqlite/sql_text.h"

#include "base/text.h"
#include "publisher/common/publish_error.h"
#include "publisher/common/utf8.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tarn::publisher {

namespace {

/** A decimal number that is no integer for SQL. */
std::string WithPoint(const std::string& digits) {
	return digits.find_first_of(".e") == std::string::npos ? digits + ".0" : digits;
}

/**
 * An integer below 2^53, multiplied or divided by powers of two. All are exact, and so is every step, which ends nearer
 * to the value than it began.
 */
std::string Product(double value) {
	constexpr int kMantissaBits = 53;
	constexpr int kMaxPower = 62;
	int exponent = 0;
	const double fraction = std::frexp(value, &exponent);
	auto mantissa = static_cast<std::int64_t>(std::ldexp(fraction, kMantissaBits));
	int power = exponent - kMantissaBits;
	while (mantissa % 2 == 0 && power < 0) {
		mantissa /= 2;
		++power;
	}
	std::string text = std::to_string(mantissa) + (power == 0 ? ".0" : "");
	for (int left = std::abs(power); left > 0; left -= kMaxPower) {
		const auto factor = std::int64_t{1} << static_cast<unsigned>(std::min(left, kMaxPower));
		text += (power < 0 ? "/" : "*") + std::to_string(factor) + ".0";
	}
	return text;
}

/**
 * Whether SQLite reads a decimal number of 15 digits as a value on every processor: as an integer that is exact,
 * rounded at most once, or divided by a power of ten that is exact.
 */
bool IsReadExactly(const std::string& digits, double value) {
	constexpr int kMostDecimals = 22;
	constexpr double kBelowAllIntegers = 9e17;
	const std::size_t end = std::min(digits.find('e'), digits.size());
	const std::size_t point = std::min(digits.find('.'), end);
	const auto decimals = static_cast<int>(point == end ? 0 : end - point - 1);
	const int power = end == digits.size() ? 0 : std::stoi(digits.substr(end + 1));
	return decimals - power <= kMostDecimals && std::abs(value) < kBelowAllIntegers &&
	       std::strtod(digits.c_str(), nullptr) == value;
}

std::string RealText(double value) {
	if (std::isinf(value)) {
		return value > 0 ? "9e999" : "-9e999";
	}
	const std::string digits = Digits(15, value);
	return IsReadExactly(digits, value) ? WithPoint(digits) : Product(value);
}

std::string HexLiteral(std::string_view bytes) {
	return "x'" + Hex(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()) + "'";
}

std::string Quoted(std::string_view text, char quote = '\'') {
	std::string quoted(1, quote);
	for (const char byte : text) {
		quoted.append(byte == quote ? 2 : 1, byte);
	}
	return quoted + quote;
}

std::string TextLiteral(std::string_view text) {
	constexpr std::string_view kBreakMarks = "|~^`@#$%&*_=+?!<>{}[]\\\"";
	if (text.find('\0') != std::string_view::npos) {
		return "CAST(" + HexLiteral(text) + " AS TEXT)";
	}
	if (text.find('\n') == std::string_view::npos) {
		return Quoted(text);
	}
	const std::size_t mark = kBreakMarks.find_first_not_of(text);
	if (mark == std::string_view::npos) {
		return "CAST(" + HexLiteral(text) + " AS TEXT)";
	}
	std::string marked(text);
	std::replace(marked.begin(), marked.end(), '\n', kBreakMarks[mark]);
	return "replace(" + Quoted(marked) + ",'" + kBreakMarks[mark] + "',char(10))";
}

/** Whether substr() counts the characters of a text as their leading bytes; it does not behind a zero byte. */
bool IsPlainText(std::string_view text) {
	std::size_t more = 0; // continuation bytes that must follow
	for (const char byte : text) {
		const auto value = static_cast<unsigned char>(byte);
		if (value == 0 || IsContinuation(byte) != (more > 0)) {
			return false;
		}
		if (more > 0) {
			--more;
		} else if (value >= 0xC0U) {
			more = value >= 0xF0U ? 3 : value >= 0xE0U ? 2 : 1;
		}
	}
	return more == 0;
}

/** The one part in which two values differ, in bytes. */
struct Edit {
	std::size_t begin = 0;
	std::size_t end_before = 0;
	std::size_t end_after = 0;
};

Edit FindEdit(std::string_view before, std::string_view after, bool is_text) {
	const std::size_t most = std::min(before.size(), after.size());
	Edit edit;
	while (edit.begin < most && before[edit.begin] == after[edit.begin]) {
		++edit.begin;
	}
	const auto is_inside = [is_text](std::string_view text, std::size_t at) {
		return is_text && at < text.size() && IsContinuation(text[at]);
	};
	while (edit.begin > 0 && (is_inside(before, edit.begin) || is_inside(after, edit.begin))) {
		--edit.begin;
	}
	std::size_t same = 0;
	while (same < most - edit.begin && before[before.size() - same - 1] == after[after.size() - same - 1]) {
		++same;
	}
	while (is_inside(before, before.size() - same) || is_inside(after, after.size() - same)) {
		--same;
	}
	edit.end_before = before.size() - same;
	edit.end_after = after.size() - same;
	return edit;
}

std::size_t Characters(std::string_view text, bool is_text) {
	return static_cast<std::size_t>(
	    std::count_if(text.begin(), text.end(), [is_text](char byte) { return !is_text || !IsContinuation(byte); }));
}

std::string EditText(const std::string& column, const SqlValue& before, const SqlValue& after) {
	const bool is_text = after.type == SQLITE_TEXT;
	const Edit edit = FindEdit(before.bytes, after.bytes, is_text);
	const std::string_view old(before.bytes);
	const std::string_view added = std::string_view(after.bytes).substr(edit.begin, edit.end_after - edit.begin);
	std::string text;
	const auto append = [&text](const std::string& part) { text += (text.empty() ? "" : "||") + part; };
	if (edit.begin > 0) {
		const std::size_t count = Characters(old.substr(0, edit.begin), is_text);
		append(edit.begin == old.size() ? column : "substr(" + column + ",1," + std::to_string(count) + ")");
	}
	if (!added.empty()) {
		append(is_text ? TextLiteral(added) : HexLiteral(added));
	}
	if (edit.end_before < old.size()) {
		const std::size_t from = Characters(old.substr(0, edit.end_before), is_text) + 1;
		append(from == 1 ? column : "substr(" + column + "," + std::to_string(from) + ")");
	}
	return is_text ? text : "CAST(" + text + " AS BLOB)";
}

bool IsEditable(const SqlValue& before, const SqlValue& after) {
	constexpr std::size_t kWorthwhile = 48;
	const bool has_bytes = after.type == SQLITE_TEXT || after.type == SQLITE_BLOB;
	return has_bytes && before.type == after.type && after.bytes.size() > kWorthwhile && !before.bytes.empty() &&
	       (after.type == SQLITE_BLOB || (IsPlainText(before.bytes) && IsPlainText(after.bytes)));
}

} // namespace

std::string Digits(int precision, double value) {
	std::array<char, 64> text{};
	const int size = std::snprintf(text.data(), text.size(), "%.*g", precision, value);
	return {text.data(), static_cast<std::size_t>(size)};
}

double SqlValue::Real() const {
	double real = 0;
	std::memcpy(&real, &integer, sizeof(real));
	return real;
}

SqlValue ValueOf(const SQLite::Column& column) {
	SqlValue value;
	value.type = column.getType();
	if (value.type == SQLITE_INTEGER) {
		value.integer = column.getInt64();
	} else if (value.type == SQLITE_FLOAT) {
		const double real = column.getDouble();
		std::memcpy(&value.integer, &real, sizeof(real));
	} else if (value.type != SQLITE_NULL) {
		value.bytes = column.getString();
	}
	return value;
}

std::string QuotedName(const std::string& name) {
	return Quoted(name, '"');
}

std::string Joined(const std::vector<std::string>& parts, const char* between, const char* prefix) {
	std::string text;
	for (const std::string& part : parts) {
		text.append(text.empty() ? "" : between).append(prefix).append(part);
	}
	return text;
}

std::string NameInScript(const std::string& name) {
	constexpr std::string_view kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_0123456789";
	if (name.find('\n') != std::string::npos) {
		throw PublishError("the name \"" + Printable(name) + "\" does not fit on one line");
	}
	const bool is_plain = !name.empty() && name.find_first_not_of(kPlain) == std::string::npos &&
	                      kPlain.find(name.front()) < kPlain.find('0') &&
	                      sqlite3_keyword_check(name.data(), static_cast<int>(name.size())) == 0;
	return is_plain ? name : QuotedName(name);
}

std::string Literal(const SqlValue& value) {
	switch (value.type) {
	case SQLITE_INTEGER:
		return std::to_string(value.integer);
	case SQLITE_FLOAT:
		return RealText(value.Real());
	case SQLITE_TEXT:
		return TextLiteral(value.bytes);
	case SQLITE_BLOB:
		return HexLiteral(value.bytes);
	default:
		return "NULL";
	}
}

std::string NewValue(const std::string& column, const SqlValue& before, const SqlValue& after) {
	constexpr std::size_t kRoom = 16; // an edit must save more than the script's packing would
	std::string literal = Literal(after);
	if (!IsEditable(before, after)) {
		return literal;
	}
	std::string edit = EditText(column, before, after);
	return edit.size() + kRoom < literal.size() ? edit : literal;
}

} // namespace tarn::publisher
