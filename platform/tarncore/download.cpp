#include "platform/tarncore/download.h"

#include "base/file_io.h"
#include "base/mutex.h"
#include "base/unique_fd.h"
#include "platform/tarncore/complaints.h"
#include "platform/tarncore/environment.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

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

const char* Take(const Directive& directive, DownloadSettings& settings) {
	const bool is_rate = directive.name == "lowest_rate";
	if (!is_rate && directive.name != "deadline" && directive.name != "patience") {
		return "unknown directive";
	}
	const std::optional<std::uint64_t> number = ParseNumber(directive.value);
	if (!number || (*number == 0 && !is_rate)) {
		return "the number is missing or out of range";
	}
	if (is_rate) {
		settings.lowest_rate = *number;
	} else {
		(directive.name == "deadline" ? settings.deadline : settings.patience) = std::chrono::seconds(*number);
	}
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

constexpr std::chrono::milliseconds kPeriod(100);

/** Where the client finds the settings that always hold: its standard input. */
constexpr const char* kFixedSettingsPath = "/proc/self/fd/0";
/** The protections of the shipped settings file, which hold as well while that file is missing or not trusted. */
constexpr char kSettings[] = "netrc = off\nhsts = off\nmax_redirect = 5\nread_timeout = 60\n";

/** The host's function to ask, and what it wants to be handed. */
struct {
	Mutex mutex;
	TLIBCDownloadLimiter ask TARN_GUARDED_BY(mutex) = nullptr;
	void* data TARN_GUARDED_BY(mutex) = nullptr;
} limiter;

/** What TLIBCDownloadFailureGet() returns. */
thread_local std::string last_failure;

TLIBCDownloadLimits AskForLimits(const Download& download) {
	TLIBCDownloadLimits limits = {};
	// Held during the call, so that nobody is asked any more once another function has been set.
	const MutexLock guard(limiter.mutex);
	if (limiter.ask != nullptr) {
		limiter.ask(download.url.c_str(), download.file.c_str(), &limits, limiter.data);
	}
	return limits;
}

/** A file in memory that holds the fixed settings; empty with errno set when it cannot be made. */
UniqueFd MakeFixedSettings() {
	UniqueFd file(memfd_create("wgetrc", MFD_CLOEXEC));
	if (file && !WriteAll(file.Get(), kSettings, sizeof kSettings - 1)) {
		file.Reset();
	}
	return file;
}

/** No value when the file system doesn't tell. */
std::optional<Space> SpaceFor(const std::string& file) {
	const std::size_t slash = file.rfind('/');
	const std::string directory = slash == std::string::npos ? "." : file.substr(0, std::max<std::size_t>(slash, 1));
	struct statvfs info = {};
	if (statvfs(directory.c_str(), &info) != 0 || info.f_blocks == 0) {
		return std::nullopt;
	}
	return Space{std::uint64_t{info.f_bavail} * info.f_frsize, std::uint64_t{info.f_blocks} * info.f_frsize};
}

/** Before the client's file is removed. */
std::string DescribeSpace(const std::string& file) {
	const std::optional<Space> space = SpaceFor(file);
	return space ? " (" + std::to_string(space->free_bytes) + " bytes of " + std::to_string(space->capacity) +
	                   " were free for " + file + ")"
	             : "";
}

int Tell(const Download& download, DownloadEnd end) {
	end.text += end.reason == TLIBC_DOWNLOAD_NO_SPACE ? DescribeSpace(download.file) : "";
	syslog(LOG_WARNING, "tarncore: the download of '%s' was ended: %s", download.url.c_str(), end.text.c_str());
	last_failure = end.text;
	return TLIBC_ERR_DOWNLOAD + end.reason;
}

} // namespace

DownloadSettings ReadDownloadSettings(const std::string& path, uid_t owner) {
	DownloadSettings settings;
	if (!IsTrustedSettingsFile(path, owner)) {
		return settings;
	}
	// What cannot be read leaves the defaults, which limit as well.
	[[maybe_unused]] const int ignored =
	    ReadSettingsLines(path, "tarncore", [&](const Directive& directive) { return Take(directive, settings); });
	return settings;
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
	if (now - begin_ >= settings_.deadline) {
		end_ = {TLIBC_DOWNLOAD_TOO_LONG, "it did not end within its deadline of " + Seconds(settings_.deadline)};
	}
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

std::optional<Download> AsDownload(const process::Program& program) {
	const std::vector<std::string>& arguments = program.arguments;
	const auto output = std::find(arguments.begin(), arguments.end(), "-O");
	if (program.path != kHttpClient || output == arguments.end() || output + 1 == arguments.end()) {
		return std::nullopt;
	}
	const auto is_no_option = [](const std::string& argument) { return argument.empty() || argument[0] != '-'; };
	const auto url = std::find_if(arguments.begin(), output, is_no_option);
	return Download{url == output ? "" : *url, *(output + 1)};
}

int RunDownload(process::Program& program, const Download& download, int& status) {
	using Clock = DownloadGuard::Clock;
	last_failure.clear();
	DownloadGuard guard(
	    ReadDownloadSettings(), AskForLimits(download), SpaceFor(download.file), FileSize(download.file), Clock::now());
	program.largest_file = guard.LargestFile();
	UniqueFd settings;
	if (program.environment) {
		// The system's own settings of the client would be obeyed before and without the administrator's for updates.
		settings = MakeFixedSettings();
		if (!settings) {
			return errno;
		}
		program.streams[0] = settings.Get();
		program.environment->push_back(std::string("SYSTEM_WGETRC=") + kFixedSettingsPath);
	}
	Complaints complaints;
	if (program.streams[2] == process::kNullStream && complaints.Stream() >= 0) {
		program.streams[2] = complaints.Stream(); // Where nobody would read, the reason of a failure is read.
	}
	pid_t child = -1;
	if (const int error = process::Start(program, child); error != 0) {
		return error;
	}
	complaints.CloseStream();
	const auto may_go_on = [&] {
		complaints.Drain();
		return guard.MayGoOn(FileSize(download.file), SpaceFor(download.file), Clock::now());
	};
	if (const int error = process::WaitWatching(child, program.new_group, kPeriod, may_go_on, status); error != 0) {
		return error;
	}
	if (WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) {
		guard.NoteExcess();
	}
	// What came to its end at the last moment has come.
	const bool succeeded = WIFEXITED(status) && WEXITSTATUS(status) == 0;
	if (guard.End() && !succeeded) {
		return Tell(download, *guard.End());
	}
	complaints.Drain();
	last_failure = succeeded ? "" : complaints.Last();
	return 0;
}

} // namespace tarn::core

void TLIBCDownloadLimiterSet(TLIBCDownloadLimiter ask, void* data) {
	using tarn::core::limiter;
	const tarn::MutexLock guard(limiter.mutex);
	limiter.ask = ask;
	limiter.data = data;
}

const char* TLIBCDownloadFailureGet() {
	return tarn::core::last_failure.c_str();
}
