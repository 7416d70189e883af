#include "base/file_io.h"
#include "base/process.h"
#include "dataupdate/installation.h"
#include "dataupdate/interruption.h"
#include "dataupdate/paths.h"
#include "host/commands/commands.h"
#include "host/commands/report.h"
#include "host/library/failure.h"
#include "host/library/install_place.h"
#include "host/library/preparation.h"
#include "host/library/process.h"
#include "host/library/services.h"

#include <CLI/CLI.hpp>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <thread>

namespace tarn::ctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPause(100);

void RequireNotInterrupted() {
	if (dataupdate::IsInterruptionRequested()) {
		throw CommandError(kInterrupted, "Interrupted");
	}
}

/** What lies in the directory otherwise may be of another version than the recorded one. */
void RequireInstalledHere(const Services& services, const Options& options) {
	const std::optional<std::string> old_place =
	    options.even_unfinished ? std::nullopt : FindOldPlace(services, options.id);
	if (old_place) {
		throw CommandError(kLocked, "There is nothing to read of " + options.id + ": " +
		                                DescribeOldPlace(services, options.id, *old_place) +
		                                "; the next update or fix installs it there");
	}
}

/** A lock that is held; after a restart its file is missing until somebody makes it. */
std::unique_ptr<ReaderLock> TakeLock(const Services& services, const Options& options, unsigned long timeout_seconds) {
	auto lock = std::make_unique<ReaderLock>(options.id, timeout_seconds);
	if (lock->Held()) {
		return lock;
	}
	RequireInstalledHere(services, options);
	if (ReadInstalled(services, options.id).data_version == -1) {
		throw CommandError(kLocked, "Nothing is installed of " + options.id + ", so there is nothing to lock");
	}
	if (MakeReaderLockFile(options.id)) {
		lock = std::make_unique<ReaderLock>(options.id, timeout_seconds);
	}
	if (!lock->Held()) {
		throw CommandError(kLocked, "The lock file of " + options.id +
		                                " is missing since the system started; run \"tarndbudctl init\" as root");
	}
	return lock;
}

/** Whoever may make the lock files makes them with their mode before one of them is taken. */
bool IsAnyUpdating(const Services& services) {
	if (access(dataupdate::kLockDirectory, W_OK | X_OK) == 0) {
		PrepareLockFiles(services);
	}
	return services.checker->IsAnyUpdating();
}

/**
 * A lock on files that are one version. After a run that was killed while it replaced them the lock is free and only
 * the mark tells; it stands as well for a moment after each replacement, until that is recorded. Who cannot ask whether
 * an update is running, for want of root's rights, waits as if one were.
 */
std::unique_ptr<ReaderLock> TakeLockOnWhole(const Services& services, const Options& options) {
	const Clock::time_point begin = Clock::now();
	for (;;) {
		const auto passed = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin).count();
		const unsigned long left =
		    options.timeout_seconds - std::min(options.timeout_seconds, static_cast<unsigned long>(passed));
		std::unique_ptr<ReaderLock> lock = TakeLock(services, options, left);
		if (options.even_unfinished || !dataupdate::MayBeAMixture(options.id)) {
			return lock;
		}
		lock.reset();
		const bool may_be_recorded = left > 0 && IsAnyUpdating(services);
		if (!may_be_recorded && dataupdate::MayBeAMixture(options.id)) {
			throw CommandError(kLocked, "The last replacement of the files of " + options.id +
			                                " was not finished, so they may be of two versions; the next update or fix "
			                                "installs them again, and --even-unfinished reads them as they are");
		}
		std::this_thread::sleep_for(kPause);
		RequireNotInterrupted();
	}
}

/** Waits without reaping, so that the child's number stays its own as long as signals are passed on to it. */
void AwaitEnd(pid_t child) {
	const SignalForwarding forwarding(child);
	if (dataupdate::IsInterruptionRequested()) {
		kill(child, SIGTERM); // The request came when there was no child yet.
	}
	siginfo_t info = {};
	RetryOnInterrupt([&] { return waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT); });
}

/**
 * Runs a command, found along PATH, with this program's streams and environment and none of its other descriptors, and
 * waits for it. Returns its exit status, or 128 plus the signal that ended it; 127 or 126 when it is missing or cannot
 * be executed, after a sentence on the error stream. Signals that only this program gets are passed on, and the command
 * is asked to end (SIGTERM) when this program is killed.
 */
ExitCode RunChild(const std::vector<std::string>& command, Terminal& terminal) {
	process::Program program;
	program.path = command.front();
	program.search_path = true;
	program.arguments = {command.begin() + 1, command.end()};
	program.close_descriptors = false; // Those of this program close themselves, those of its caller are the command's.
	program.reset_signals = false;
	program.signal_mask = MaskForChild();
	program.death_signal = SIGTERM;
	program.umask = CallersUmask();
	pid_t child = -1;
	if (const int error = process::Start(program, child); error != 0) {
		if (child < 0) {
			throw CommandError(kFailed, std::string("No process could be started (") + std::strerror(error) + ")");
		}
		terminal.Complain(program.path + " cannot be executed: " +
		                  (error == ENOENT ? "there is no such program." : "it is no program that may be run here."));
		return error == ENOENT ? kNotFound : kNotExecutable;
	}
	AwaitEnd(child);
	int status = 0;
	if (const int error = process::Wait(child, status); error != 0) {
		throw CommandError(kFailed, std::string("The command's end was lost (") + std::strerror(error) + ")");
	}
	return static_cast<ExitCode>(WIFEXITED(status) ? WEXITSTATUS(status) : kSignalBase + WTERMSIG(status));
}

void Declare(CLI::App& app, Options& options) {
	app.add_option("ID", options.id, "Database")->required();
	DeclareTimeout(app, options, "Seconds to wait while the database is being replaced");
	app.add_flag("--even-unfinished", options.even_unfinished,
	    "Read even if the last replacement of the files was not finished, so that they may be of two versions");
}

ExitCode Run(const Services& services, const Options& options) {
	services.config->CheckSupported(options.id);
	const std::unique_ptr<ReaderLock> lock = TakeLockOnWhole(services, options);
	RequireInstalledHere(services, options); // Again under the lock: an update may have ended meanwhile.
	RequireNotInterrupted();
	return RunChild(options.command, services.terminal);
}

} // namespace

const Command kReadCommand = {"read", "Run a command while a database cannot be replaced",
    "Does not run the command when the lock was not obtained, or when the last replacement of the files was not "
    "finished.\n"
    "The command does not inherit the lock: a process that it leaves running in the background does not hold the lock.",
    {kUnsupported, kLocked, kNotExecutable, kNotFound}, false, false, Declare, Run, Tail::kCommand};

} // namespace tarn::ctl
