#include "platform/tarnsdk/hook_arguments.h"

#include "base/file_io.h"
#include "base/text.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace tarn::sdk {
namespace {

/** What the kernel takes for one string of the environment, the NUL included. */
constexpr std::size_t kLongestVariable = std::size_t{128} * 1024;

/** MFD_NOEXEC_SEAL, which hardened kernels demand and the C library's headers don't name yet. */
constexpr unsigned int kMemoryNotExecutable = 0x0008U;

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

UniqueFd MakeArgumentFile(const HookArguments& arguments) {
	UniqueFd file(CreateMemoryFile());
	if (!file) {
		return {};
	}
	for (const auto& [key, value] : arguments) {
		if (!WriteArgument(file.Get(), key, value)) {
			return {};
		}
	}
	if (fcntl(file.Get(), F_ADD_SEALS, F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE) != 0) {
		return {};
	}
	return file;
}

UniqueFd ReopenForReading(const UniqueFd& file) {
	const std::string path = "/proc/self/fd/" + std::to_string(file.Get());
	return UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

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
		variables.push_back(key);
		variables.back().append("=").append(value);
	}
	variables.push_back("TARN_HOOK_OMITTED=" + omitted);
	return variables;
}

} // namespace tarn::sdk
