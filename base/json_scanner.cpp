#include "base/json_scanner.h"

#include "base/file_io.h"

#include <algorithm>
#include <cstring>

namespace tarn {

namespace {

constexpr std::size_t kBufferBytes = std::size_t{64} << 10U;
constexpr int kMostDigits = 18;

[[noreturn]] void Refuse() {
	throw UnexpectedJson();
}

void AppendUtf8(unsigned point, std::string& text) {
	constexpr unsigned kLow = 0x3fU;
	const auto rest = [&](unsigned shift) { text += static_cast<char>(0x80U | ((point >> shift) & kLow)); };
	if (point < 0x80U) {
		text += static_cast<char>(point);
	} else if (point < 0x800U) {
		text += static_cast<char>(0xc0U | (point >> 6U));
		rest(0);
	} else if (point < 0x10000U) {
		text += static_cast<char>(0xe0U | (point >> 12U));
		rest(6);
		rest(0);
	} else {
		text += static_cast<char>(0xf0U | (point >> 18U));
		rest(12);
		rest(6);
		rest(0);
	}
}

bool IsHighSurrogate(unsigned unit) {
	return unit >= 0xd800U && unit < 0xdc00U;
}

bool IsLowSurrogate(unsigned unit) {
	return unit >= 0xdc00U && unit < 0xe000U;
}

} // namespace

JsonScanner::JsonScanner(int fd) : fd_(fd), buffer_(kBufferBytes) {}

void JsonScanner::Fill() {
	const ssize_t count = ReadAllAt(fd_, buffer_.data(), buffer_.size(), offset_);
	if (count < 0) {
		Refuse();
	}
	offset_ += static_cast<std::uint64_t>(count);
	filled_ = static_cast<std::size_t>(count);
	at_ = 0;
}

int JsonScanner::Peek() {
	if (at_ == filled_) {
		Fill();
	}
	return at_ == filled_ ? kEnd : static_cast<unsigned char>(buffer_[at_]);
}

int JsonScanner::Take() {
	const int byte = Peek();
	at_ += byte == kEnd ? 0 : 1;
	return byte;
}

void JsonScanner::SkipBlanks() {
	for (int byte = Peek(); byte == ' ' || byte == '\t' || byte == '\n' || byte == '\r'; byte = Peek()) {
		++at_;
	}
}

bool JsonScanner::Skip(char expected) {
	SkipBlanks();
	const bool is_next = Peek() == static_cast<unsigned char>(expected);
	at_ += is_next ? 1 : 0;
	return is_next;
}

void JsonScanner::Require(char expected) {
	if (!Skip(expected)) {
		Refuse();
	}
}

const std::string& JsonScanner::Text() {
	Require('"');
	text_.clear();
	while (true) {
		const int byte = Take();
		if (byte == '"') {
			return text_;
		}
		// A raw zero byte and other control characters are no text of JSON.
		if (byte < ' ') {
			Refuse();
		}
		if (byte == '\\') {
			Escape();
		} else {
			text_ += static_cast<char>(byte);
		}
	}
}

void JsonScanner::Escape() {
	constexpr const char* kLetters = "\"\\/bfnrt";
	constexpr const char* kMeanings = "\"\\/\b\f\n\r\t";
	const int letter = Take();
	const char* const found = letter <= 0 ? nullptr : std::strchr(kLetters, letter);
	if (found != nullptr) {
		text_ += kMeanings[found - kLetters];
		return;
	}
	unsigned point = letter == 'u' ? CodeUnit() : 0;
	if (IsHighSurrogate(point)) {
		const bool is_pair = Take() == '\\' && Take() == 'u';
		const unsigned low = is_pair ? CodeUnit() : 0;
		constexpr unsigned kBits = 10;
		point = IsLowSurrogate(low) ? 0x10000U + ((point - 0xd800U) << kBits) + (low - 0xdc00U) : 0;
	}
	// A zero would end a name; a lone surrogate is no character.
	if (point == 0 || IsLowSurrogate(point)) {
		Refuse();
	}
	AppendUtf8(point, text_);
}

unsigned JsonScanner::CodeUnit() {
	constexpr unsigned kDigitBits = 4;
	unsigned unit = 0;
	for (int i = 0; i < 4; ++i) {
		const int digit = Take();
		unit <<= kDigitBits;
		if (digit >= '0' && digit <= '9') {
			unit += static_cast<unsigned>(digit - '0');
		} else if ((digit | 0x20) >= 'a' && (digit | 0x20) <= 'f') {
			unit += static_cast<unsigned>((digit | 0x20) - 'a' + 10);
		} else {
			Refuse();
		}
	}
	return unit;
}

std::int64_t JsonScanner::Integer() {
	const bool is_negative = Skip('-');
	std::int64_t value = 0;
	int digits = 0;
	for (int byte = Peek(); byte >= '0' && byte <= '9'; byte = Peek()) {
		value = value * 10 + (Take() - '0');
		if (++digits > kMostDigits) {
			Refuse();
		}
	}
	// A fraction or an exponent is found by whoever looks for what follows.
	if (digits == 0) {
		Refuse();
	}
	return is_negative ? -value : value;
}

bool JsonScanner::Boolean() {
	const bool value = Skip('t');
	const std::string_view rest = value ? "rue" : "false";
	if (!value) {
		SkipBlanks();
	}
	const bool is_whole = std::all_of(rest.begin(), rest.end(), [this](char expected) { return Take() == expected; });
	if (!is_whole) {
		Refuse();
	}
	return value;
}

void JsonScanner::Members(const std::function<void(const std::string& name)>& member) {
	Require('{');
	if (Skip('}')) {
		return;
	}
	std::string name;
	do {
		name = Text();
		Require(':');
		member(name);
	} while (Skip(','));
	Require('}');
}

void JsonScanner::Expect(bool is_as_expected) {
	if (!is_as_expected) {
		Refuse();
	}
}

void JsonScanner::End() {
	SkipBlanks();
	if (Peek() != kEnd) {
		Refuse();
	}
}

} // namespace tarn
