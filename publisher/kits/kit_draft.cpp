#include "publisher/kits/kit_draft.h"

#include "base/text.h"
#include "publisher/common/files.h"
#include "publisher/common/publish_error.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void Fail(const std::string& path, const std::string& what) {
	throw PublishError(ErrnoText("The kit " + path + " cannot be " + what, errno) + ".");
}

std::string DirectoryOf(const std::string& path) {
	const fs::path parent = fs::path(path).parent_path();
	return parent.empty() ? "." : parent.string();
}

std::string NameBeside(const std::string& path) {
	return DirectoryOf(path) + "/" + kTemporaryPrefix + fs::path(path).filename().string() + ".part";
}

/** Whether the open file still has this name, and no other one. */
bool IsNamed(int fd, const std::string& name) {
	struct stat own {};
	struct stat named {};
	return fstat(fd, &own) == 0 && lstat(name.c_str(), &named) == 0 && own.st_ino == named.st_ino &&
	       own.st_dev == named.st_dev && S_ISREG(own.st_mode) && own.st_nlink == 1;
}

/** An owner is told by the lock: the file of a process that lives is left to it. */
UniqueFd TakeOver(const std::string& path, const std::string& name) {
	constexpr mode_t kMode = 0644;
	UniqueFd fd(open(name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kMode));
	if (!fd) {
		Fail(path, "written");
	}
	if (flock(fd.Get(), LOCK_EX | LOCK_NB) != 0) {
		Fail(path, errno == EWOULDBLOCK ? "written while another process writes it" : "locked");
	}
	if (!IsNamed(fd.Get(), name)) {
		throw PublishError("The kit " + path + " cannot be written, because " + name + " is in the way; remove it.");
	}
	return fd;
}

} // namespace

KitDraft::KitDraft(const std::string& path) : path_(path) {
	if (fs::is_directory(path)) {
		throw PublishError("The kit " + path + " cannot be written, because it is a directory.");
	}
	const std::string name = NameBeside(path);
	draft_ = Draft(TakeOver(path, name), name);
	if (ftruncate(draft_.Fd(), 0) != 0) {
		Fail(path, "written");
	}
}

void KitDraft::Sync() const {
	if (fsync(draft_.Fd()) != 0) {
		Fail(path_, "brought to the disk");
	}
}

void KitDraft::Commit() {
	if (!draft_.TakePlace(path_) || !SyncDirectory(DirectoryOf(path_))) {
		Fail(path_, "put in place");
	}
}

} // namespace tarn::publisher
