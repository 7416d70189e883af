#include "base/text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>
#include <system_error>

namespace tarn {
namespace {

constexpr unsigned char kDelete = 0x7f;

void AppendHex(unsigned char byte, std::string& text) {
	constexpr std::string_view kDigits = "0123456789abcdef";
	text += kDigits[byte >> 4U];
	text += kDigits[byte & 0xfU];
}

char PlainCharacter(char character) {
	if (character == '\t' || character == '\n' || character == '\r') {
		return ' ';
	}
	return character >= ' ' && character <= '~' ? character : '?';
}

} // namespace

std::string Hex(const unsigned char* bytes, std::size_t size) {
	std::string text;
	std::for_each(bytes, bytes + size, [&text](unsigned char byte) { AppendHex(byte, text); });
	return text;
}

std::string ErrnoText(const std::string& attempt, int error) {
	return attempt + ": " + std::generic_category().message(error);
}

std::string Printable(std::string_view name) {
	std::string text;
	for (const char character : name) {
		const auto byte = static_cast<unsigned char>(character);
		if (byte < ' ' || byte == kDelete) {
			text += "\\x";
			AppendHex(byte, text);
		} else {
			text += character;
		}
	}
	return text;
}

std::string PlainAscii(std::string_view text, std::size_t most_characters) {
	const std::string_view kept = text.substr(0, most_characters);
	std::string plain;
	std::transform(kept.begin(), kept.end(), std::back_inserter(plain), PlainCharacter);
	return kept.size() < text.size() ? plain + "..." : plain;
}

std::string HumanSize(std::uint64_t bytes) {
	constexpr std::array<const char*, 5> kUnits = {"kB", "MB", "GB", "TB", "PB"};
	constexpr double kStep = 1000;
	// What would be rounded up to four digits takes the next unit.
	constexpr double kMostShown = 999.95;
	if (bytes < 1000) {
		return std::to_string(bytes) + " B";
	}
	double value = static_cast<double>(bytes) / kStep;
	std::size_t unit = 0;
	while (value >= kMostShown && unit + 1 < kUnits.size()) {
		value /= kStep;
		++unit;
	}
	std::array<char, 32> buffer{};
	std::snprintf(buffer.data(), buffer.size(), "%.1f %s", value, kUnits.at(unit));
	return buffer.data();
}

std::string WithoutEnd(std::string text, const char* end) {
	return text.erase(text.find_last_not_of(end) + 1);
}

std::vector<std::string> PathSteps(std::string_view path) {
	std::vector<std::string> steps;
	while (!path.empty()) {
		const std::size_t end = std::min(path.find('/'), path.size());
		const std::string_view step = path.substr(0, end);
		if (!step.empty() && step != ".") {
			steps.emplace_back(step);
		}
		path.remove_prefix(std::min(end + 1, path.size()));
	}
	return steps;
}

std::string JoinSteps(const std::vector<std::string>& steps) {
	std::string path;
	for (const std::string& step : steps) {
		path += (path.empty() ? "" : "/") + step;
	}
	return path;
}

bool StartsWith(std::string_view text, std::string_view prefix) {
	return text.substr(0, prefix.size()) == prefix;
}

bool EndsWith(std::string_view text, std::string_view suffix) {
	return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

} // namespace tarn
