#include "platform/tarnsdk/hook_process.h"

#include "base/file_io.h"

#include <climits>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace tarn::sdk {

namespace {

/** What the kernel takes for one string of the environment, the NUL included. */
constexpr std::size_t kLongestVariable = std::size_t{128} * 1024;

/** MFD_NOEXEC_SEAL, which hardened kernels demand and the C library's headers don't name yet. */
constexpr unsigned int kMemoryNotExecutable = 0x0008U;

/** A killed process that hangs in the kernel is left to itself after this time. */
constexpr std::chrono::seconds kKillGrace(10);

bool WriteArgument(int fd, const std::string& key, const std::string& value) {
	// The NUL that ends the string is the separator of the file's records.
	return WriteAll(fd, key.data(), key.size()) && WriteAll(fd, "=", 1) &&
	       WriteAll(fd, value.c_str(), value.size() + 1);
}

int CreateMemoryFile() {
	constexpr const char* kName = "hook-arguments";
	constexpr unsigned int kFlags = MFD_CLOEXEC | MFD_ALLOW_SEALING;
	const int fd = memfd_create(kName, kFlags | kMemoryNotExecutable);
	return fd < 0 && errno == EINVAL ? memfd_create(kName, kFlags) : fd;
}

/**
 * The arguments as "key=value" strings, as far as each fits into one string of the environment and all of them into
 * half of what the system allows, followed by TARN_HOOK_OMITTED with the keys that did not fit.
 */
std::vector<std::string> ArgumentVariables(const HookArguments& arguments) {
	const long limit = sysconf(_SC_ARG_MAX);
	std::size_t room = limit > 0 ? static_cast<std::size_t>(limit) / 2 : kLongestVariable;
	std::vector<std::string> variables;
	std::string omitted;
	for (const auto& [key, value] : arguments) {
		const std::size_t size = key.size() + 1 + value.size() + 1;
		if (size > std::min(room, kLongestVariable)) {
			omitted += omitted.empty() ? "" : " ";
			omitted += key;
			continue;
		}
		room -= size;
		variables.emplace_back(key).append("=").append(value);
	}
	variables.push_back("TARN_HOOK_OMITTED=" + omitted);
	return variables;
}

std::vector<std::string> HookEnvironment(const HookEvent& event) {
	std::vector<std::string> environment = ArgumentVariables(event.arguments);
	environment.insert(environment.end(),
	    {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C", "HOME=/nonexistent", "TARN_HOOK_ACTION=" + event.action,
	        "TARN_HOOK_MODULE=" + event.module, "TARN_HOOK_PATH=" + event.path, "TARN_HOOK_ARGS_FILE=/proc/self/fd/0"});
	return environment;
}

} // namespace

process::Program HookProgram(const HookEvent& event) {
	process::Program program;
	program.arguments = {event.action};
	program.environment = HookEnvironment(event);
	program.streams = {process::kNullStream, process::kNullStream, process::kNullStream};
	program.working_directory = "/";
	program.new_group = true;
	return program;
}

bool EndsWithin(const UniqueFd& process, std::chrono::milliseconds limit) {
	using Clock = std::chrono::steady_clock;
	const Clock::time_point deadline = Clock::now() + limit;
	pollfd watched = {process.Get(), POLLIN, 0};
	const auto poll_once = [&] {
		const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
		return poll(&watched, 1, static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX)));
	};
	return RetryOnInterrupt(poll_once) > 0;
}

bool KillGroup(pid_t leader, const UniqueFd& process) {
	// The leader hasn't been reaped, so its number can't have passed to another group yet.
	kill(-leader, SIGKILL);
	kill(leader, SIGKILL);
	return !process || EndsWithin(process, kKillGrace);
}

UniqueFd ReopenForReading(const UniqueFd& file) {
	const std::string path = "/proc/self/fd/" + std::to_string(file.Get());
	return UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

UniqueFd MakeArgumentFile(const HookArguments& arguments) {
	constexpr int kSeals = F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;
	UniqueFd file(CreateMemoryFile());
	const auto write = [&](const auto& argument) { return WriteArgument(file.Get(), argument.first, argument.second); };
	const bool is_made =
	    file && std::all_of(arguments.begin(), arguments.end(), write) && fcntl(file.Get(), F_ADD_SEALS, kSeals) == 0;
	return is_made ? std::move(file) : UniqueFd();
}

} // namespace tarn::sdk
