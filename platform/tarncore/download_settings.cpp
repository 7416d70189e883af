#include "platform/tarncore/download_settings.h"

#include "base/settings_lines.h"
#include "platform/tarncore/environment.h"

#include <syslog.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <optional>

namespace tarn::core {
namespace {

/** A number of at most nine digits, which no clock and no product of two overflows. */
std::optional<std::uint64_t> ParseNumber(const std::string& text) {
	constexpr std::size_t kMostDigits = 9;
	const auto is_digit = [](char character) { return character >= '0' && character <= '9'; };
	if (text.empty() || text.size() > kMostDigits || !std::all_of(text.begin(), text.end(), is_digit)) {
		return std::nullopt;
	}
	return std::stoull(text);
}

bool TakeSeconds(std::chrono::seconds& setting, std::uint64_t number) {
	setting = std::chrono::seconds(number);
	return number > 0;
}

/** Takes one line over; otherwise tells what is wrong with it, null when nothing is. */
const char* TakeLine(const std::string& line, DownloadSettings& settings) {
	const std::optional<Directive> directive = ParseLine(line);
	if (!directive) {
		return nullptr;
	}
	const std::optional<std::uint64_t> number = ParseNumber(directive->value);
	DownloadSettings changed = settings;
	bool fits = number.has_value();
	if (directive->name == "deadline") {
		fits = fits && TakeSeconds(changed.deadline, *number);
	} else if (directive->name == "patience") {
		fits = fits && TakeSeconds(changed.patience, *number);
	} else if (directive->name == "lowest_rate") {
		changed.lowest_rate = number.value_or(0);
	} else {
		return "unknown directive";
	}
	if (!fits) {
		return "the number is missing or out of range";
	}
	settings = changed;
	return nullptr;
}

} // namespace

DownloadSettings ReadDownloadSettings(const std::string& path, uid_t owner) {
	DownloadSettings settings;
	if (!IsTrustedSettingsFile(path, owner)) {
		return settings;
	}
	std::ifstream file(path);
	std::string line;
	for (unsigned int number = 1; std::getline(file, line); ++number) {
		if (const char* problem = TakeLine(line, settings); problem != nullptr) {
			syslog(LOG_WARNING, "tarncore: %s:%u: %s: '%s'", path.c_str(), number, problem, line.c_str());
		}
	}
	return settings;
}

} // namespace tarn::core
