#include "base/process.h"

#include <climits>

// This header of the C library lacks the declaration that makes it usable from C++.
extern "C" {
#include <sys/pidfd.h>
}

#include "base/file_io.h"
#include "base/signals.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace tarn::process {
namespace {

constexpr int kExecFailed = 127;
constexpr int kFirstPrivate = 3;

/**
 * Everything that the child needs, made before the fork: after it only async-signal-safe calls are allowed, which write
 * to no memory but the stack and errno.
 */
struct Plan {
	std::vector<std::string> texts;
	std::vector<char*> argv;
	std::vector<char*> own_envp;
	char** envp = nullptr;
	std::array<int, 3> streams = {};
	std::array<UniqueFd, 3> lifted;
	UniqueFd null;
	UniqueFd report_from;
	UniqueFd report_to;
	sigset_t caller_mask{};
	pid_t caller = 0;
};

UniqueFd CopyAboveStreams(int fd) {
	return UniqueFd(fcntl(fd, F_DUPFD_CLOEXEC, kFirstPrivate));
}

/** A caller may have closed its standard streams; what we open must not take their numbers. */
UniqueFd AboveStreams(UniqueFd fd) {
	return !fd || fd.Get() >= kFirstPrivate ? std::move(fd) : CopyAboveStreams(fd.Get());
}

/**
 * A descriptor that a caller without standard streams got in their place would be overwritten by a stream that is
 * placed before it, or stay marked to be closed where it is in its place already.
 */
int LiftStreams(Plan& plan) {
	for (std::size_t i = 0; i < plan.streams.size(); ++i) {
		if (plan.streams[i] >= 0 && plan.streams[i] < kFirstPrivate) {
			plan.lifted[i] = CopyAboveStreams(plan.streams[i]);
			if (!plan.lifted[i]) {
				return errno;
			}
			plan.streams[i] = plan.lifted[i].Get();
		}
	}
	return 0;
}

int OpenReportPipe(Plan& plan) {
	std::array<int, 2> ends = {};
	if (pipe2(ends.data(), O_CLOEXEC) != 0) {
		return errno;
	}
	plan.report_from = AboveStreams(UniqueFd(ends[0]));
	plan.report_to = AboveStreams(UniqueFd(ends[1]));
	return plan.report_from && plan.report_to ? 0 : errno;
}

void FillTexts(const Program& program, Plan& plan) {
	plan.texts.push_back(program.path);
	plan.texts.insert(plan.texts.end(), program.arguments.begin(), program.arguments.end());
	const std::size_t argument_count = plan.texts.size();
	if (program.environment) {
		plan.texts.insert(plan.texts.end(), program.environment->begin(), program.environment->end());
	}
	for (std::size_t i = 0; i < plan.texts.size(); ++i) {
		(i < argument_count ? plan.argv : plan.own_envp).push_back(plan.texts[i].data());
	}
	plan.argv.push_back(nullptr);
	plan.own_envp.push_back(nullptr);
	plan.envp = program.environment ? plan.own_envp.data() : environ;
}

int MakePlan(const Program& program, Plan& plan) {
	FillTexts(program, plan);
	plan.caller = getpid();
	const auto& streams = program.streams;
	if (std::find(streams.begin(), streams.end(), kNullStream) != streams.end()) {
		plan.null = AboveStreams(UniqueFd(open("/dev/null", O_RDWR | O_CLOEXEC)));
		if (!plan.null) {
			return errno;
		}
	}
	for (std::size_t i = 0; i < plan.streams.size(); ++i) {
		plan.streams[i] = streams[i] == kNullStream ? plan.null.Get() : streams[i];
	}
	if (const int error = LiftStreams(plan); error != 0) {
		return error;
	}
	return OpenReportPipe(plan);
}

// From here to RunInChild: in the child, between fork and exec. Each step returns false with errno set.

bool PlaceStreams(const Plan& plan) {
	for (std::size_t i = 0; i < plan.streams.size(); ++i) {
		if (plan.streams[i] != kInheritStream && dup2(plan.streams[i], static_cast<int>(i)) < 0) {
			return false;
		}
	}
	return true;
}

bool BindToCaller(const Plan& plan, int death_signal) {
	if (prctl(PR_SET_PDEATHSIG, death_signal) != 0) {
		return false;
	}
	// A caller that died before the request was made will never send the signal.
	if (getppid() != plan.caller) {
		errno = ESRCH;
		return false;
	}
	return true;
}

bool LimitFiles(std::uint64_t largest) {
	rlimit limit = {};
	if (getrlimit(RLIMIT_FSIZE, &limit) != 0) {
		return false;
	}
	limit.rlim_cur = limit.rlim_max = std::min<rlim_t>(limit.rlim_max, largest);
	constexpr rlimit kNone = {0, 0};
	return setrlimit(RLIMIT_FSIZE, &limit) == 0 && setrlimit(RLIMIT_CORE, &kNone) == 0;
}

bool PrepareChild(const Program& program, const Plan& plan) {
	if (!PlaceStreams(plan)) {
		return false;
	}
	// Marking instead of closing keeps the report pipe usable until the very exec.
	if (program.close_descriptors && close_range(kFirstPrivate, UINT_MAX, CLOSE_RANGE_CLOEXEC) != 0) {
		return false;
	}
	if (program.new_group && setpgid(0, 0) != 0) {
		return false;
	}
	if (program.death_signal != 0 && !BindToCaller(plan, program.death_signal)) {
		return false;
	}
	if (!program.working_directory.empty() && chdir(program.working_directory.c_str()) != 0) {
		return false;
	}
	if (program.largest_file && !LimitFiles(*program.largest_file)) {
		return false;
	}
	if (program.umask) {
		umask(*program.umask);
	}
	DropHandlers(program.reset_signals);
	sigset_t mask = program.signal_mask.value_or(plan.caller_mask);
	if (program.reset_signals && !program.signal_mask) {
		sigemptyset(&mask);
	}
	return sigprocmask(SIG_SETMASK, &mask, nullptr) == 0;
}

[[noreturn]] void ReportAndExit(const Plan& plan) {
	const int reason = errno;
	// An int fits into the empty pipe at once; when the reader is gone nobody is left to be told.
	[[maybe_unused]] const ssize_t written = write(plan.report_to.Get(), &reason, sizeof reason);
	_exit(kExecFailed);
}

[[noreturn]] void RunInChild(const Program& program, const Plan& plan) {
	if (PrepareChild(program, plan)) {
		(program.search_path ? execvpe : execve)(plan.argv[0], plan.argv.data(), plan.envp);
	}
	ReportAndExit(plan);
}

/** Hands the program to a second child and leaves, so that the system's reaper inherits it. */
[[noreturn]] void RunInGrandchild(const Program& program, const Plan& plan) {
	const pid_t grandchild = _Fork();
	if (grandchild == 0) {
		RunInChild(program, plan);
	}
	if (grandchild < 0) {
		ReportAndExit(plan);
	}
	_exit(0);
}

pid_t Fork(const Program& program, Plan& plan, bool detached) {
	// The caller's signal handlers must not run in the child between fork and exec.
	const AllSignalsBlocked blocked;
	plan.caller_mask = blocked.Before();
	if (detached) {
		const pid_t child = fork();
		if (child == 0) {
			RunInGrandchild(program, plan);
		}
		return child;
	}
	// Without a copy of the caller's page tables, which takes the longer the more the caller has read. On Linux the
	// child uses the caller's memory until it executes the program, and has descriptors, handlers and limits of its
	// own.
	const pid_t child = vfork(); // NOLINT(clang-analyzer-security.insecureAPI.vfork)
	if (child == 0) {
		RunInChild(program, plan); // NOLINT(clang-analyzer-unix.Vfork)
	}
	return child;
}

/** The reason why the child could not execute the program, 0 when it could: exec closed the pipe. */
int ReadReport(Plan& plan) {
	plan.report_to.Reset();
	int reason = 0;
	const ssize_t got = RetryOnInterrupt([&] { return read(plan.report_from.Get(), &reason, sizeof reason); });
	if (got < 0) {
		return errno;
	}
	return got == 0 ? 0 : reason;
}

int StartAs(const Program& program, bool detached, pid_t& child) {
	child = -1;
	Plan plan;
	if (const int error = MakePlan(program, plan); error != 0) {
		return error;
	}
	child = Fork(program, plan, detached);
	if (child < 0) {
		return errno;
	}
	const int error = ReadReport(plan);
	if (error != 0 || detached) {
		int status = 0;
		[[maybe_unused]] const int lost = Wait(child, status); // it leaves no zombie; how it ended is of no interest
	}
	return error;
}

/** Whether a child has ended, or nobody can tell, which Wait() finds out then. The child is not reaped. */
bool HasEnded(pid_t child) {
	siginfo_t info = {};
	return waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == child;
}

} // namespace

int Start(const Program& program, pid_t& child) {
	return StartAs(program, false, child);
}

int StartDetached(const Program& program) {
	pid_t child = -1;
	return StartAs(program, true, child);
}

UniqueFd Open(pid_t child) {
	return UniqueFd(pidfd_open(child, 0));
}

int Wait(pid_t child, int& status) {
	const pid_t ended = RetryOnInterrupt([&] { return waitpid(child, &status, 0); });
	return ended == child ? 0 : errno;
}

int WaitWatching(pid_t child, bool leads_group, std::chrono::milliseconds period,
    const std::function<bool()>& may_go_on, int& status) {
	// Only saves the rest of a period: without the descriptor, poll() is a sleep.
	const UniqueFd process = Open(child);
	pollfd watched = {process.Get(), POLLIN, 0};
	while (!HasEnded(child)) {
		if (!may_go_on()) {
			kill(leads_group ? -child : child, SIGKILL);
			break;
		}
		poll(&watched, 1, static_cast<int>(period.count()));
	}
	return Wait(child, status);
}

} // namespace tarn::process
