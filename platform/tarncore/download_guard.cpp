#include "platform/tarncore/download_guard.h"

#include "base/settings_lines.h"
#include "platform/tarncore/environment.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <syslog.h>

#include <algorithm>
#include <fstream>
#include <map>

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

constexpr std::uint64_t kReservedShare = 20;
constexpr std::uint64_t kSmallFile = 2UL * 1024 * 1024;

std::string Seconds(std::chrono::seconds time) {
	return std::to_string(time.count()) + " s";
}

DownloadEnd NoSpace() {
	return {TLIBC_DOWNLOAD_NO_SPACE, "it would leave less than a twentieth of its file system free"};
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

std::optional<Space> SpaceFor(const std::string& file) {
	const std::size_t slash = file.rfind('/');
	const std::string directory = slash == std::string::npos ? "." : file.substr(0, std::max<std::size_t>(slash, 1));
	struct statvfs info = {};
	if (statvfs(directory.c_str(), &info) != 0 || info.f_blocks == 0) {
		return std::nullopt;
	}
	return Space{std::uint64_t{info.f_bavail} * info.f_frsize, std::uint64_t{info.f_blocks} * info.f_frsize};
}

std::uint64_t FileSize(const std::string& file) {
	struct stat info = {};
	return stat(file.c_str(), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
}

DownloadGuard::DownloadGuard(const DownloadSettings& settings, const TLIBCDownloadLimits& limits,
    const std::optional<Space>& space, std::uint64_t size, Clock::time_point now)
    : settings_(settings), excess_(NoSpace()), begin_(now), size_(size), last_enough_(now) {
	if (limits.seconds > 0) {
		settings_.deadline = std::min(settings_.deadline, std::chrono::seconds(limits.seconds));
	}
	if (space) {
		// What it replaces becomes free; as far as another name doesn't keep it, which the repeated look finds out.
		const std::uint64_t available = space->free_bytes + size;
		const std::uint64_t reserve = space->capacity / kReservedShare;
		largest_ = std::max(available - std::min(available, reserve), std::min(kSmallFile, available / 2));
	}
	if (limits.largest_bytes > 0 && (!largest_ || limits.largest_bytes < *largest_)) {
		largest_ = limits.largest_bytes;
		excess_ = {TLIBC_DOWNLOAD_TOO_LARGE, std::string("it is larger than ") +
		                                         (limits.largest_is == nullptr ? "expected" : limits.largest_is) +
		                                         " (" + std::to_string(limits.largest_bytes) + " bytes)"};
	}
}

bool DownloadGuard::MayGoOn(std::uint64_t size, const std::optional<Space>& space, Clock::time_point now) {
	CheckSpace(size, space);
	CheckRate(size, now);
	CheckDeadline(now);
	return !end_;
}

void DownloadGuard::NoteExcess() {
	end_ = excess_;
}

/** Others fill the disk as well, and more than one download may run. */
void DownloadGuard::CheckSpace(std::uint64_t size, const std::optional<Space>& space) {
	if (!space) {
		return;
	}
	const std::uint64_t reserve = space->capacity / kReservedShare;
	if (space->free_bytes < (size > kSmallFile ? reserve : std::min(reserve, size))) {
		end_ = NoSpace();
	}
}

void DownloadGuard::CheckRate(std::uint64_t size, Clock::time_point now) {
	received_ += size > size_ ? size - size_ : 0;
	size_ = size;
	const auto wanted = settings_.lowest_rate * static_cast<std::uint64_t>(settings_.patience.count());
	if (received_ >= wanted) {
		received_ = 0;
		last_enough_ = now;
	} else if (now - last_enough_ >= settings_.patience) {
		end_ = {TLIBC_DOWNLOAD_TOO_SLOW, "it was slower than " + std::to_string(settings_.lowest_rate) +
		                                     " bytes/s for " + Seconds(settings_.patience)};
	}
}

void DownloadGuard::CheckDeadline(Clock::time_point now) {
	if (now - begin_ >= settings_.deadline) {
		end_ = {TLIBC_DOWNLOAD_TOO_LONG, "it did not end within its deadline of " + Seconds(settings_.deadline)};
	}
}

} // namespace tarn::core
