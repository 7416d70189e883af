#include "base/file_io.h"
#include "base/text.h"
#include "platform/tarnsdk/hook_directory.h"
#include "platform/tarnsdk/hook_process.h"
#include "platform/tarnsdk/hook_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <utility>

namespace tarn::sdk {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPeriodMilliseconds = 100;
constexpr std::size_t kLongestPath = 200;
constexpr std::size_t kKeptBytes = 4096;
constexpr std::size_t kLongestLine = 300;
constexpr int kMostReads = 64; // So that a hook that never stops writing does not keep its watcher from the clock.

/**
 * The beginning of one stream of a hook. What comes behind it is read as well and dropped, so that a hook never waits
 * for a reader and never fills memory.
 */
class HookStream {
public:
	/** Makes the pipe; false with errno set when that fails. */
	[[nodiscard]] bool Open();

	/** The hook's end, which the caller keeps open only until the hook has been started. */
	UniqueFd& WriteEnd() { return write_end_; }
	/** To be polled; -1 when nothing comes any more. */
	int ReadEnd() const { return read_end_.Get(); }

	/** Takes what has come, without waiting. */
	void Take();

	/** The first line that is not blank, as printable ASCII of limited length. */
	std::string FirstLine() const;

private:
	UniqueFd read_end_;
	UniqueFd write_end_;
	std::string beginning_;
};

bool HookStream::Open() {
	std::array<int, 2> ends = {-1, -1};
	if (pipe2(ends.data(), O_CLOEXEC) != 0) {
		return false;
	}
	read_end_ = UniqueFd(ends[0]);
	write_end_ = UniqueFd(ends[1]);
	// Only the reader's end: the hook would not expect its own stream to refuse bytes.
	return fcntl(read_end_.Get(), F_SETFL, O_NONBLOCK) == 0;
}

void HookStream::Take() {
	std::array<char, 4096> buffer{};
	for (int reads = 0; read_end_ && reads < kMostReads; ++reads) {
		const ssize_t got = RetryOnInterrupt([&] { return read(read_end_.Get(), buffer.data(), buffer.size()); });
		if (got < 0 && errno == EAGAIN) {
			return;
		}
		if (got <= 0) {
			read_end_.Reset();
			return;
		}
		beginning_.append(buffer.data(), std::min(static_cast<std::size_t>(got), kKeptBytes - beginning_.size()));
	}
}

std::string HookStream::FirstLine() const {
	std::istringstream lines(beginning_);
	for (std::string line; std::getline(lines, line);) {
		const std::string plain = PlainAscii(line, kLongestLine);
		const std::size_t begin = plain.find_first_not_of(' ');
		if (begin != std::string::npos) {
			return plain.substr(begin, plain.find_last_not_of(' ') + 1 - begin);
		}
	}
	return "";
}

/** Logged with the whole path; people get it through a filter. */
Verdict Tell(TLIBPluginVerdict verdict, const std::string& path, const std::string& reason) {
	syslog(LOG_ERR, "tarnsdk: hook '%s' %s: %s", Printable(path).c_str(),
	    verdict == TLIB_PLUGIN_REFUSED ? "refuses" : "gives no verdict", reason.c_str());
	return {verdict, "'" + PlainAscii(path, kLongestPath) + "': " + reason};
}

Verdict NoVerdict(const std::string& path, const std::string& reason) {
	return Tell(TLIB_PLUGIN_NO_VERDICT, path, reason);
}

/** Why a hook that is still running has to end; empty while it may go on. */
using Objection = std::function<std::string()>;

class RunningCheck {
public:
	RunningCheck(std::string path, HookStream& output, HookStream& errors)
	    : path_(std::move(path)), output_(output), errors_(errors) {}

	/** Waits for its end, and reaps it. */
	Verdict Await(pid_t child, const Objection& object) {
		const UniqueFd process = process::Open(child);
		const std::string objection = process ? Watch(process, object) : "it cannot be watched";
		if (!objection.empty() && !KillGroup(child, process)) {
			return NoVerdict(path_, "it cannot be killed and is left to itself");
		}
		int status = 0;
		if (const int error = process::Wait(child, status); error != 0) {
			return NoVerdict(path_, std::string("it could not be waited for: ") + std::strerror(error));
		}
		output_.Take();
		errors_.Take();
		return objection.empty() ? Judge(status) : NoVerdict(path_, objection);
	}

private:
	std::string Watch(const UniqueFd& process, const Objection& object) {
		for (;;) {
			std::array<pollfd, 3> watched = {
			    {{process.Get(), POLLIN, 0}, {output_.ReadEnd(), POLLIN, 0}, {errors_.ReadEnd(), POLLIN, 0}}};
			poll(watched.data(), watched.size(), kPeriodMilliseconds);
			if ((watched[0].revents & POLLIN) != 0) {
				return "";
			}
			output_.Take();
			errors_.Take();
			if (std::string objection = object(); !objection.empty()) {
				return objection;
			}
		}
	}

	Verdict Judge(int status) const {
		if (WIFSIGNALED(status)) {
			return NoVerdict(path_, "it was killed by signal " + std::to_string(WTERMSIG(status)));
		}
		if (WEXITSTATUS(status) == 0) {
			return {};
		}
		const std::string line = errors_.FirstLine().empty() ? output_.FirstLine() : errors_.FirstLine();
		const std::string silent = "it exited with status " + std::to_string(WEXITSTATUS(status));
		return Tell(TLIB_PLUGIN_REFUSED, path_, line.empty() ? silent : line);
	}

	std::string path_;
	HookStream& output_;
	HookStream& errors_;
};

Verdict Check(const std::string& path, process::Program& program, const UniqueFd& arguments, const Objection& object) {
	HookStream output;
	HookStream errors;
	const UniqueFd input = ReopenForReading(arguments);
	if (!input || !output.Open() || !errors.Open()) {
		return NoVerdict(path, std::string("it cannot be given its streams: ") + std::strerror(errno));
	}
	program.path = path;
	program.streams = {input.Get(), output.WriteEnd().Get(), errors.WriteEnd().Get()};
	program.death_signal = SIGKILL; // What it checks is removed, or made again, when nobody waits for it any more.
	pid_t child = -1;
	if (const int error = process::Start(program, child); error != 0) {
		return NoVerdict(path, std::string("it cannot be started: ") + std::strerror(error));
	}
	output.WriteEnd().Reset();
	errors.WriteEnd().Reset();
	return RunningCheck(path, output, errors).Await(child, object);
}

Objection ObjectAfter(std::chrono::milliseconds limit, const std::function<bool()>& may_go_on) {
	return [limit, may_go_on, deadline = Clock::now() + limit]() -> std::string {
		if (!may_go_on()) {
			return "it was killed, as the check was ended";
		}
		return Clock::now() < deadline ? "" : "it was killed after " + std::to_string(limit.count()) + " ms";
	};
}

} // namespace

Verdict CheckByHooks(const HookEvent& event, const HookSettings& settings, const std::function<bool()>& may_go_on) {
	const std::string subpath = event.module + "/" + event.path;
	const HookList hooks = FindHooks(settings.roots, subpath, settings.owner);
	if (!hooks.complete) {
		return NoVerdict(subpath, "a hook or its directory is not trusted; the system log names it");
	}
	if (hooks.paths.empty()) {
		return {};
	}
	const UniqueFd arguments = MakeArgumentFile(event.arguments);
	if (!arguments) {
		return NoVerdict(hooks.paths.front(), std::string("it cannot be given its arguments: ") + std::strerror(errno));
	}
	process::Program program = HookProgram(event);
	for (const std::string& path : hooks.paths) {
		Verdict verdict = Check(path, program, arguments, ObjectAfter(settings.time_limit, may_go_on));
		if (verdict.verdict != TLIB_PLUGIN_ACCEPTED) {
			return verdict;
		}
	}
	return {};
}

} // namespace tarn::sdk
