#include "host/library/next_run.h"

#include "base/error.h"
#include "base/file_io.h"
#include "base/process.h"
#include "base/text.h"
#include "host/library/cron.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <sstream>

namespace tarn::ctl {

namespace {

constexpr char kSystemctl[] = "/usr/bin/systemctl";
constexpr char kBootedBySystemd[] = "/run/systemd/system";
constexpr std::size_t kLongestText = 65536;
constexpr std::chrono::milliseconds kPeriod(50);
constexpr std::chrono::seconds kPatience(5);

/** What systemd tells of the timer; empty when it does not answer soon, and where it did not start the system. */
std::string AskSystemd() {
	if (access(kBootedBySystemd, F_OK) != 0) {
		return "";
	}
	const UniqueFd output(memfd_create("timer", MFD_CLOEXEC));
	process::Program program;
	program.path = kSystemctl;
	program.arguments = {"show", "--property=ActiveState,SubState,NextElapseUSecRealtime", kTimerUnit};
	program.environment = {"PATH=/usr/bin:/bin", "LC_ALL=C", "TZ=UTC"};
	program.streams = {process::kNullStream, output.Get(), process::kNullStream};
	pid_t child = -1;
	if (!output || process::Start(program, child) != 0) {
		return "";
	}
	const auto deadline = std::chrono::steady_clock::now() + kPatience;
	const auto may_go_on = [&] { return std::chrono::steady_clock::now() < deadline; };
	int status = 0;
	if (process::WaitWatching(child, false, kPeriod, may_go_on, status) != 0 || status != 0) {
		return "";
	}
	return ReadSmallFile(output.Get(), kLongestText, kSystemctl);
}

/** "Mon 2026-11-23 03:12:45 UTC", or "@" and seconds since 1970. */
std::optional<std::time_t> ParseMoment(const std::string& text) {
	std::tm utc{};
	const char* const format = StartsWith(text, "@") ? "@%s" : "%a %Y-%m-%d %H:%M:%S UTC";
	const char* const end = strptime(text.c_str(), format, &utc);
	if (end == nullptr || *end != '\0') {
		return std::nullopt;
	}
	// "%s" fills in local time.
	return StartsWith(text, "@") ? mktime(&utc) : timegm(&utc);
}

std::optional<std::time_t> NextByCron() {
	try {
		const UniqueFd table = OpenRegularFile(AT_FDCWD, kCronTable);
		return NextRunByTable(ReadSmallFile(table.Get(), kLongestText, kCronTable), std::time(nullptr));
	} catch (const Error&) {
		return std::nullopt; // There is none, as a rule.
	}
}

} // namespace

std::optional<NextRun> ParseTimer(const std::string& properties) {
	constexpr char kMoment[] = "NextElapseUSecRealtime=";
	std::istringstream lines(properties);
	bool is_active = false;
	NextRun run;
	run.by = kTimerUnit;
	for (std::string line; std::getline(lines, line);) {
		is_active = is_active || line == "ActiveState=active";
		run.is_running = run.is_running || line == "SubState=running";
		if (StartsWith(line, kMoment)) {
			run.time = ParseMoment(line.substr(sizeof kMoment - 1));
		}
	}
	return is_active ? std::optional(run) : std::nullopt;
}

std::optional<std::time_t> NextRunByTable(const std::string& table, std::time_t now) {
	std::istringstream lines(table);
	for (std::string line; std::getline(lines, line);) {
		const std::size_t begin = line.find_first_not_of(" \t");
		if (begin != std::string::npos && line[begin] != '#' && line.find("tarndbudctl update") != std::string::npos) {
			return NextCronTime(line, now);
		}
	}
	return std::nullopt;
}

std::optional<NextRun> FindNextRun() {
	if (std::optional<NextRun> run = ParseTimer(AskSystemd())) {
		return run;
	}
	if (const std::optional<std::time_t> time = NextByCron()) {
		return NextRun{time, kCronTable};
	}
	return std::nullopt;
}

} // namespace tarn::ctl
