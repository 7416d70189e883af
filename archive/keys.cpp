#include "archive/keys.h"

#include "base/error.h"
#include "base/file_io.h"
#include "base/text.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <memory>

namespace tarn::archive {

namespace {

struct DirectoryCloser {
	void operator()(DIR* directory) const { closedir(directory); }
};

// Whoever can write a key, or the directory of keys, decides what is installed.
void RequireGuarded(int fd, const std::string& what) {
	struct stat status {};
	if (fstat(fd, &status) != 0) {
		ThrowErrno("cannot get status of " + what);
	}
	if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
		throw Error(what + " can be written by its group or by others");
	}
	if (status.st_uid != 0 && status.st_uid != geteuid()) {
		throw Error(what + " belongs to another user");
	}
}

bool IsKeyFileName(const std::string& name) {
	constexpr std::string_view kSuffix = ".pub";
	return name.size() > kSuffix.size() && EndsWith(name, kSuffix);
}

std::vector<std::string> KeyFileNames(int directory_fd, const std::string& directory) {
	UniqueFd copy(fcntl(directory_fd, F_DUPFD_CLOEXEC, 0));
	const std::unique_ptr<DIR, DirectoryCloser> stream(fdopendir(copy.Get()));
	if (!stream) {
		ThrowErrno("cannot read " + directory);
	}
	copy.Release(); // the stream closes it
	std::vector<std::string> names;
	errno = 0;
	while (const dirent* entry = readdir(stream.get())) {
		if (IsKeyFileName(entry->d_name)) {
			names.emplace_back(entry->d_name);
		}
		errno = 0;
	}
	if (errno != 0) {
		ThrowErrno("cannot read " + directory);
	}
	std::sort(names.begin(), names.end());
	return names;
}

PublicKey ReadGuardedKey(int directory_fd, const std::string& name) {
	const UniqueFd fd = OpenRegularFile(directory_fd, name);
	RequireGuarded(fd.Get(), "the file");
	return PublicKey::FromPem(ReadSmallFile(fd.Get(), kMaxKeyFileSize, "the file"));
}

} // namespace

std::vector<TrustedKey> LoadTrustedKeys(const std::string& directory) {
	const UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
	if (!fd) {
		ThrowErrno("cannot read the directory of trusted keys, " + directory);
	}
	RequireGuarded(fd.Get(), "the directory of trusted keys, " + directory + ",");
	std::vector<TrustedKey> keys;
	for (const std::string& name : KeyFileNames(fd.Get(), directory)) {
		try {
			keys.push_back({name, ReadGuardedKey(fd.Get(), name)});
		} catch (const Error& error) {
			syslog(LOG_WARNING, "tarncodesign: %s/%s: skipped: %s", directory.c_str(), Printable(name).c_str(),
			    error.what());
		}
	}
	return keys;
}

TrustedKey LoadPublicKeyFile(const std::string& path) {
	try {
		const UniqueFd fd = OpenRegularFile(AT_FDCWD, path);
		return {path, PublicKey::FromPem(ReadSmallFile(fd.Get(), kMaxKeyFileSize, "it"))};
	} catch (const Error& error) {
		throw Error(path + ": " + error.what());
	}
}

} // namespace tarn::archive
