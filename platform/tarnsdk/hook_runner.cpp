#include "platform/tarnsdk/hook_runner.h"

#include "base/text.h"
#include "platform/tarnsdk/hook_directory.h"
#include "platform/tarnsdk/hook_process.h"

#include <sys/wait.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace tarn::sdk {

namespace {

bool Failed(const std::string& path, const std::string& reason) {
	syslog(LOG_ERR, "tarnsdk: hook '%s' %s", path.c_str(), reason.c_str());
	return false;
}

bool JudgeEnd(const std::string& path, int status) {
	if (WIFSIGNALED(status)) {
		return Failed(path, "was killed by signal " + std::to_string(WTERMSIG(status)));
	}
	if (WEXITSTATUS(status) != 0) {
		return Failed(path, "exited with status " + std::to_string(WEXITSTATUS(status)));
	}
	return true;
}

/** Waits for a started hook and reaps it. */
bool Await(const std::string& path, pid_t child, std::chrono::milliseconds limit) {
	const UniqueFd process = process::Open(child);
	const int watch_error = process ? 0 : errno;
	const bool ended = process && EndsWithin(process, limit);
	if (!ended && !KillGroup(child, process)) {
		return Failed(path, "cannot be killed and is left to itself");
	}
	int status = 0;
	if (const int error = process::Wait(child, status); error != 0) {
		return Failed(path, std::string("could not be waited for: ") + std::strerror(error));
	}
	if (watch_error != 0) {
		return Failed(path, std::string("was killed since it cannot be watched: ") + std::strerror(watch_error));
	}
	if (!ended) {
		return Failed(path, "was killed with its process group after " + std::to_string(limit.count()) + " ms");
	}
	return JudgeEnd(path, status);
}

bool RunHook(const std::string& path, process::Program& program, const UniqueFd& arguments,
    std::chrono::milliseconds time_limit) {
	const UniqueFd input = ReopenForReading(arguments);
	if (!input) {
		return Failed(path, std::string("cannot be given its arguments: ") + std::strerror(errno));
	}
	program.path = path;
	program.streams[0] = input.Get();
	pid_t child = -1;
	if (const int error = process::Start(program, child); error != 0) {
		return Failed(path, std::string("cannot be started: ") + std::strerror(error));
	}
	return Await(path, child, time_limit);
}

} // namespace

bool IsArgumentKey(const std::string& key) {
	constexpr std::array<const char*, 3> kBuilt = {"PATH", "LC_ALL", "HOME"};
	constexpr std::array<const char*, 2> kBuiltPrefixes = {"TARN_HOOK_", "LD_"};
	constexpr const char* kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_";
	const std::string name_characters = std::string(kLetters) + "0123456789";
	const auto begins_key = [&](const char* prefix) { return StartsWith(key, prefix); };
	return !key.empty() && std::strchr(kLetters, key[0]) != nullptr &&
	       key.find_first_not_of(name_characters) == std::string::npos &&
	       std::find(kBuilt.begin(), kBuilt.end(), key) == kBuilt.end() &&
	       std::none_of(kBuiltPrefixes.begin(), kBuiltPrefixes.end(), begins_key);
}

bool RunHooks(const HookEvent& event, const HookSettings& settings) {
	const HookList hooks = FindHooks(settings.roots, event.module + "/" + event.path, settings.owner);
	if (hooks.paths.empty()) {
		return hooks.complete;
	}
	const UniqueFd arguments = MakeArgumentFile(event.arguments);
	if (!arguments) {
		return Failed(hooks.paths.front(), std::string("cannot be given its arguments: ") + std::strerror(errno));
	}
	process::Program program = HookProgram(event);
	bool all_succeeded = hooks.complete;
	for (const std::string& path : hooks.paths) {
		all_succeeded = RunHook(path, program, arguments, settings.time_limit) && all_succeeded;
	}
	return all_succeeded;
}

} // namespace tarn::sdk
