#include "platform/tarnsdk/hook_directory.h"

#include "base/handle.h"
#include "base/text.h"
#include "base/unique_fd.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>

namespace tarn::sdk {
namespace {

constexpr const char* kUntrusted = "others than its administrator may write it";

/** The path of the hook to be run by its name; empty where something only hides hooks of that name in earlier roots. */
using Entries = std::map<std::string, std::string>;

std::string BelowPath(const std::string& directory, const std::string& name) {
	return std::filesystem::path(directory) / name;
}

bool IsTrusted(const struct stat& info, uid_t owner) {
	return info.st_uid == owner && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

void LogRefused(const std::string& path, const char* reason) {
	syslog(LOG_ERR, "tarnsdk: hooks: '%s' is refused: %s", path.c_str(), reason);
}

/** Editors and package managers leave such files beside the real ones. */
bool IsLeftover(const std::string& name) {
	return name[0] == '.' || name.back() == '~' || name.find(".dpkg-") != std::string::npos;
}

int Refuse(const std::string& path, int error) {
	LogRefused(path, std::strerror(error));
	return error;
}

/** Opens one directory: 0, ENOENT when it is absent, or another errno value when it is refused, which has been logged.
 */
int OpenTrusted(int at, const std::string& name, int flags, const std::string& path, uid_t owner, UniqueFd& directory) {
	UniqueFd opened(openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags));
	if (!opened) {
		return errno == ENOENT ? ENOENT : Refuse(path, errno);
	}
	struct stat info = {};
	if (fstat(opened.Get(), &info) != 0) {
		return Refuse(path, errno);
	}
	if (!IsTrusted(info, owner)) {
		LogRefused(path, kUntrusted);
		return EPERM;
	}
	directory = std::move(opened);
	return 0;
}

/** Walks down from a root, so that no directory on the way may be anyone else's. */
int OpenBelow(const std::string& root, const std::string& subpath, uid_t owner, UniqueFd& directory) {
	std::string path = root;
	int error = OpenTrusted(AT_FDCWD, root, 0, root, owner, directory);
	for (const std::string& name : PathSteps(subpath)) {
		path = BelowPath(path, name);
		error = error != 0 ? error : OpenTrusted(directory.Get(), name, O_NOFOLLOW, path, owner, directory);
	}
	return error;
}

/** Takes one name into the entries; false when it is a hook that isn't trusted. */
bool TakeEntry(int directory, const std::string& name, const std::string& path, uid_t owner, Entries& entries) {
	std::string& hook = entries[name];
	hook.clear();
	struct stat info = {};
	if (fstatat(directory, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
		Refuse(path, errno);
		return false;
	}
	if (!S_ISREG(info.st_mode)) {
		syslog(LOG_WARNING, "tarnsdk: hooks: '%s' is skipped: it is no regular file", path.c_str());
		return true;
	}
	if ((info.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) == 0) {
		return true;
	}
	if (!IsTrusted(info, owner)) {
		LogRefused(path, kUntrusted);
		return false;
	}
	hook = path;
	return true;
}

bool TakeDirectory(UniqueFd directory, const std::string& path, uid_t owner, Entries& entries) {
	const Handle<DIR, closedir> stream(fdopendir(directory.Get()));
	if (!stream) {
		Refuse(path, errno);
		return false;
	}
	// The stream owns the descriptor from here on, and is the only one to close it.
	const int names = directory.Release();
	bool complete = true;
	errno = 0;
	while (const dirent* found = readdir(stream.get())) { // NOLINT(concurrency-mt-unsafe): a stream of our own
		const std::string name = found->d_name;
		if (!IsLeftover(name)) {
			complete = TakeEntry(names, name, BelowPath(path, name), owner, entries) && complete;
		}
		errno = 0;
	}
	if (errno != 0) {
		Refuse(path, errno);
		return false;
	}
	return complete;
}

} // namespace

HookList FindHooks(const std::vector<std::string>& roots, const std::string& subpath, uid_t owner) {
	HookList hooks;
	Entries entries;
	for (const std::string& root : roots) {
		UniqueFd directory;
		const int error = OpenBelow(root, subpath, owner, directory);
		const bool taken = error == 0 && TakeDirectory(std::move(directory), BelowPath(root, subpath), owner, entries);
		hooks.complete = (taken || error == ENOENT) && hooks.complete;
	}
	for (const auto& [name, path] : entries) {
		if (!path.empty()) {
			hooks.paths.push_back(path);
		}
	}
	return hooks;
}

} // namespace tarn::sdk
