#include "base/process.h"
#include "platform/c_boundary.h"
#include "platform/tarncore/download.h"
#include "platform/tarncore/environment.h"

#include <tarncore/tarncore.h>

#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <cstdarg>

namespace {

thread_local int last_error = 0;

using tarn::Fail;
using tarn::WithoutExceptions;
using tarn::process::Program;

constexpr unsigned int kKnownOptions = TLIBC_EXEC_ISOLATED | TLIBC_EXEC_NEW_GROUP | TLIBC_EXEC_KEEP_SIGNALS;

Program MakeProgram(const char* path, unsigned int options) {
	Program program;
	program.path = path;
	program.close_descriptors = (options & TLIBC_EXEC_CLOSE_FDS) != 0;
	program.new_group = (options & TLIBC_EXEC_NEW_GROUP) != 0;
	program.reset_signals = (options & TLIBC_EXEC_KEEP_SIGNALS) == 0;
	program.death_signal = (options & TLIBC_EXEC_WAIT) != 0 ? SIGKILL : 0;
	constexpr std::array<unsigned int, 3> kNullOptions = {
	    TLIBC_EXEC_STDIN_NULL, TLIBC_EXEC_STDOUT_NULL, TLIBC_EXEC_STDERR_NULL};
	for (std::size_t i = 0; i < program.streams.size(); ++i) {
		program.streams[i] =
		    (options & kNullOptions[i]) != 0 ? tarn::process::kNullStream : tarn::process::kInheritStream;
	}
	if ((options & TLIBC_EXEC_CLEAN_ENV) != 0) {
		program.environment = tarn::core::BuildEnvironment();
	}
	return program;
}

/** 0, or why the program could not be run. */
int Run(const Program& program, int& status) {
	pid_t child = -1;
	const int error = tarn::process::Start(program, child);
	return error != 0 ? error : tarn::process::Wait(child, status);
}

/** The exit status, or -1; either failure is kept for TLIBCErrGet(). */
int RunToEnd(Program& program) {
	int status = 0;
	const std::optional<tarn::core::Download> download = tarn::core::AsDownload(program);
	const int error = download ? tarn::core::RunDownload(program, *download, status) : Run(program, status);
	if (error != 0) {
		return Fail(error);
	}
	if (!WIFEXITED(status)) {
		return Fail(TLIBC_ERR_SIGNAL + WTERMSIG(status));
	}
	if (WEXITSTATUS(status) != 0) {
		TLIBCErrSet(TLIBC_ERR_EXIT + WEXITSTATUS(status));
	}
	return WEXITSTATUS(status);
}

int RunList(const char* path, unsigned int options, std::va_list arguments) {
	if (path == nullptr || path[0] != '/' || (options & ~kKnownOptions) != 0) {
		return Fail(EINVAL);
	}
	Program program = MakeProgram(path, options);
	while (const char* argument = va_arg(arguments, const char*)) {
		program.arguments.emplace_back(argument);
	}
	if ((options & TLIBC_EXEC_WAIT) != 0) {
		return RunToEnd(program);
	}
	const int error = tarn::process::StartDetached(program);
	return error == 0 ? 0 : Fail(error);
}

} // namespace

int TLIBCErrGet() {
	return last_error;
}

void TLIBCErrSet(int code) {
	last_error = code;
}

int TLIBCExecl(const char* path, unsigned int options, ...) {
	std::va_list arguments;
	va_start(arguments, options);
	const int result = WithoutExceptions([&] { return RunList(path, options, arguments); });
	va_end(arguments);
	return result;
}

int TLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3, const char* arg4) {
	constexpr unsigned int kOptions =
	    TLIBC_EXEC_WAIT | TLIBC_EXEC_CLOSE_FDS | TLIBC_EXEC_STDIN_NULL | TLIBC_EXEC_CLEAN_ENV | TLIBC_EXEC_NEW_GROUP;
	return TLIBCExecl(path, kOptions, arg1, arg2, arg3, arg4, nullptr) == 0 ? 0 : -1;
}
