#include "host/commands/child_command.h"

#include "host/library/failure.h"
#include "host/library/interruption_watch.h"
#include "host/own_umask.h"

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace tarn::ctl {

namespace {

/** In the child, where only what a signal handler may do is allowed. */
[[noreturn]] void Execute(const std::vector<char*>& arguments, pid_t parent, mode_t mask) {
	umask(mask);
	prctl(PR_SET_PDEATHSIG, SIGTERM);
	if (getppid() != parent) {
		_exit(kFailed);
	}
	UnblockWatchedSignals();
	execvp(arguments[0], arguments.data());
	const int error = errno;
	for (const char* text : {"tarndbudctl: ", static_cast<const char*>(arguments[0]), " cannot be executed: ",
	         error == ENOENT ? "there is no such program" : "it is no program that may be run here", ".\n"}) {
		[[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, std::strlen(text));
	}
	_exit(error == ENOENT ? kNotFound : kNotExecutable);
}

/** Waits without reaping, so that the child's number stays its own as long as signals are passed on to it. */
void AwaitEnd(pid_t child) {
	const SignalForwarding forwarding(child);
	if (dataupdate::IsInterruptionRequested()) {
		kill(child, SIGTERM); // The request came when there was no child yet.
	}
	siginfo_t info = {};
	while (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
	}
}

} // namespace

ExitCode RunChildCommand(const std::vector<std::string>& command) {
	std::vector<std::string> texts = command;
	std::vector<char*> arguments;
	arguments.reserve(texts.size() + 1);
	for (std::string& text : texts) {
		arguments.push_back(text.data());
	}
	arguments.push_back(nullptr);
	const mode_t mask = CallersUmask();
	const pid_t parent = getpid();
	const pid_t child = fork();
	if (child == 0) {
		Execute(arguments, parent, mask);
	}
	if (child < 0) {
		throw CommandError(kFailed, std::string("No process could be started (") + std::strerror(errno) + ")");
	}
	AwaitEnd(child);
	int status = 0;
	if (waitpid(child, &status, 0) != child) {
		throw CommandError(kFailed, std::string("The command's end was lost (") + std::strerror(errno) + ")");
	}
	return static_cast<ExitCode>(WIFEXITED(status) ? WEXITSTATUS(status) : kSignalBase + WTERMSIG(status));
}

} // namespace tarn::ctl
