#include "base/settings_lines.h"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <optional>

namespace tarn {
namespace {

constexpr const char* kBlanks = " \t\r";

std::string Trim(const std::string& text) {
	const std::size_t begin = text.find_first_not_of(kBlanks);
	if (begin == std::string::npos) {
		return {};
	}
	return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

/** A "#" begins a comment where a word could begin; within a path it is a character like others. */
std::string WithoutComment(const std::string& line) {
	for (std::size_t at = line.find('#'); at != std::string::npos; at = line.find('#', at + 1)) {
		if (at == 0 || std::string(kBlanks).find(line[at - 1]) != std::string::npos) {
			return line.substr(0, at);
		}
	}
	return line;
}

/** No value for an empty line and for a comment. */
std::optional<Directive> ParseLine(const std::string& line, unsigned int number) {
	const std::string text = Trim(WithoutComment(line));
	if (text.empty()) {
		return std::nullopt;
	}
	const std::size_t blank = std::min(text.find_first_of(kBlanks), text.size());
	return Directive{text.substr(0, blank), Trim(text.substr(blank)), number};
}

} // namespace

std::vector<std::string> DownloadDirectives() {
	return {"deadline", "lowest_rate", "patience"};
}

std::vector<std::string> VolumeDirectives() {
	return {"directory", "exclude", "pattern"};
}

int ReadSettingsLines(const std::string& path, const char* program, const TakeDirective& take) {
	std::ifstream file(path);
	if (!file.is_open()) {
		return errno;
	}
	std::string line;
	for (unsigned int number = 1; std::getline(file, line); ++number) {
		const std::optional<Directive> directive = ParseLine(line, number);
		if (const char* problem = directive ? take(*directive) : nullptr; problem != nullptr) {
			syslog(LOG_WARNING, "%s: %s:%u: %s: '%s'", program, path.c_str(), number, problem, line.c_str());
		}
	}
	return file.bad() ? EIO : 0;
}

} // namespace tarn
