#include "publisher/replacing_file.h"

#include "base/text.h"
#include "publisher/publish_error.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

constexpr const char* kTemporaryPrefix = ".tarndbudpub-";
constexpr mode_t kServedMode = 0644; // a web server reads it, whatever the publisher's umask

[[noreturn]] void Fail(const std::string& path, const std::string& what) {
	throw PublishError(ErrnoText(path + " could not be " + what, errno) + ".");
}

void SyncDirectory(const fs::path& directory) {
	const UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	if (!fd || fsync(fd.Get()) != 0) {
		Fail(directory.string(), "synced");
	}
}

} // namespace

void MakeServedDirectories(const std::string& directory) {
	const fs::path path(directory);
	if (path.empty() || fs::exists(path)) {
		return;
	}
	MakeServedDirectories(path.parent_path().string());
	constexpr mode_t kMode = 0755;
	if ((mkdir(path.c_str(), kMode) != 0 && errno != EEXIST) || chmod(path.c_str(), kMode) != 0) {
		Fail(directory, "created");
	}
}

ReplacingFile::ReplacingFile(std::string path) : path_(std::move(path)) {
	const fs::path target(path_);
	MakeServedDirectories(target.parent_path().string());
	temporary_ = (target.parent_path() / (kTemporaryPrefix + target.filename().string() + ".part")).string();
	fd_ = UniqueFd(open(temporary_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kServedMode));
	if (!fd_) {
		Fail(temporary_, "created");
	}
	if (fchmod(fd_.Get(), kServedMode) != 0) {
		Fail(temporary_, "made readable");
	}
}

ReplacingFile::~ReplacingFile() {
	if (!committed_) {
		unlink(temporary_.c_str());
	}
}

void ReplacingFile::Commit() {
	if (fsync(fd_.Get()) != 0) {
		Fail(path_, "synced");
	}
	if (rename(temporary_.c_str(), path_.c_str()) != 0) {
		Fail(path_, "put in place");
	}
	committed_ = true;
	const fs::path directory = fs::path(path_).parent_path();
	SyncDirectory(directory);
	// The entry of a directory made just now is durable only when its own parent is.
	SyncDirectory(directory / "..");
	SyncDirectory(directory / ".." / "..");
}

void RemoveLeftovers(const std::string& directory) {
	std::error_code error;
	for (const fs::directory_entry& entry : fs::directory_iterator(directory, error)) {
		if (StartsWith(entry.path().filename().string(), kTemporaryPrefix)) {
			fs::remove(entry.path());
		}
	}
	if (error && error != std::errc::no_such_file_or_directory) {
		throw PublishError(directory + " cannot be read: " + error.message() + ".");
	}
}

} // namespace tarn::publisher
