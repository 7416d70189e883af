#include "publisher/common/program.h"

#include "base/process.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "publisher/common/publish_error.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

UniqueFd OutputFile(const std::string& path) {
	constexpr mode_t kMode = 0600;
	UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, kMode));
	if (!fd) {
		throw PublishError(ErrnoText(path + " could not be created", errno) + ".");
	}
	return fd;
}

std::string FirstLine(const std::string& path) {
	std::ifstream file(path);
	std::string line;
	std::getline(file, line);
	return Printable(line);
}

std::string HowItEnded(int status) {
	return WIFSIGNALED(status) ? "was killed by signal " + std::to_string(WTERMSIG(status))
	                           : "failed with status " + std::to_string(WEXITSTATUS(status));
}

} // namespace

std::optional<std::string> FindProgram(const std::string& name) {
	const char* variable = std::getenv("PATH");
	std::istringstream directories(variable == nullptr ? "/usr/bin:/bin" : variable);
	for (std::string directory; std::getline(directories, directory, ':');) {
		const fs::path path = fs::path(directory) / name;
		std::error_code ignored;
		if (path.is_absolute() && fs::is_regular_file(path, ignored) && access(path.c_str(), X_OK) == 0) {
			return path.string();
		}
	}
	return std::nullopt;
}

void RunProgram(const std::string& path, const std::vector<std::string>& arguments, const std::string& output,
    const std::string& errors) {
	process::Program program;
	program.path = path;
	program.arguments = arguments;
	program.environment = {"PATH=/usr/bin:/bin", "LC_ALL=C"};
	const UniqueFd out = OutputFile(output);
	const UniqueFd err = OutputFile(errors);
	program.streams = {process::kNullStream, out.Get(), err.Get()};
	program.death_signal = SIGKILL;
	pid_t child = -1;
	int status = 0;
	int failure = process::Start(program, child);
	if (failure == 0) {
		failure = process::Wait(child, status);
	}
	if (failure != 0) {
		throw PublishError(ErrnoText(path + " could not be run", failure) + ".");
	}
	if (status != 0) {
		throw PublishError(path + " " + HowItEnded(status) + ": " + FirstLine(errors));
	}
}

} // namespace tarn::publisher
