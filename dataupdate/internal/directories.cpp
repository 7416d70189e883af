#include "dataupdate/internal/directories.h"

#include "base/unique_fd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>
#include <vector>

namespace tarn::dataupdate {

namespace {

/** Some file systems leave the type to be asked for. */
bool IsDirectoryEntry(int directory, const dirent& entry) {
	struct stat status {};
	return entry.d_type == DT_DIR ||
	       (entry.d_type == DT_UNKNOWN && fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
	           S_ISDIR(status.st_mode));
}

bool IsDotEntry(const char* name) {
	return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

[[noreturn]] void ThrowErrno(int error = errno) {
	throw std::system_error(error, std::system_category());
}

void RequireDone(bool is_done) {
	if (!is_done) {
		ThrowErrno();
	}
}

/** Removes a name that is no directory; returns false for a directory. */
bool Unlink(int directory, const char* name) {
	if (unlinkat(directory, name, 0) == 0 || errno == ENOENT) {
		return true;
	}
	struct stat status {};
	const int error = errno;
	if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode)) {
		return false;
	}
	ThrowErrno(error);
}

/** Walks with the descriptor of one directory, going up by "..", so that depth costs memory only. */
class Remover {
public:
	explicit Remover(const std::string& root)
	    : current_(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)) {
		RequireDone(static_cast<bool>(current_));
		Enter("");
	}

	/** Leaves the root as an empty directory. */
	void Run() {
		while (true) {
			if (!levels_.back().directories.empty()) {
				Descend();
			} else if (levels_.size() > 1) {
				Ascend();
			} else {
				return;
			}
		}
	}

private:
	struct Level {
		std::string name; // in the directory above
		dev_t device = 0;
		ino_t inode = 0;
		std::vector<std::string> directories; // which remain to be removed
	};

	/** Removes all files of the current directory and notes its directories. */
	void Enter(std::string name) {
		struct stat status {};
		RequireDone(fstat(current_.Get(), &status) == 0);
		Level level = {std::move(name), status.st_dev, status.st_ino, {}};
		ReadDirectory(current_.Get()).ForEach([&](const char* entry, bool is_directory) {
			if (is_directory || !Unlink(current_.Get(), entry)) {
				level.directories.emplace_back(entry);
			}
		});
		levels_.push_back(std::move(level));
	}

	void Descend() {
		std::string name = std::move(levels_.back().directories.back());
		levels_.back().directories.pop_back();
		UniqueFd below(openat(current_.Get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
		if (below) {
			current_ = std::move(below);
			Enter(std::move(name));
		} else if (errno != ENOENT) {
			ThrowErrno();
		}
	}

	void Ascend() {
		const std::string name = std::move(levels_.back().name);
		levels_.pop_back();
		UniqueFd above(openat(current_.Get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
		struct stat status {};
		RequireDone(above && fstat(above.Get(), &status) == 0);
		// A process that moves a directory meanwhile must not lead the walk out of the tree.
		if (status.st_dev != levels_.back().device || status.st_ino != levels_.back().inode) {
			ThrowErrno(ESTALE);
		}
		current_ = std::move(above);
		RequireDone(unlinkat(current_.Get(), name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT);
	}

	UniqueFd current_;
	std::vector<Level> levels_;
};

} // namespace

DirectoryEntries::DirectoryEntries(DIR* directory) {
	while (true) {
		errno = 0;
		const dirent* entry = readdir(directory);
		if (entry == nullptr) {
			error_ = errno;
			return;
		}
		if (!IsDotEntry(entry->d_name)) {
			marked_names_ += IsDirectoryEntry(dirfd(directory), *entry) ? kDirectoryMark : kOtherMark;
			marked_names_.append(entry->d_name, std::strlen(entry->d_name) + 1);
		}
	}
}

DirectoryEntries ReadDirectory(int directory) {
	UniqueFd own(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	const DirectoryHandle handle(own ? fdopendir(own.Get()) : nullptr);
	RequireDone(handle != nullptr);
	own.Release();
	DirectoryEntries entries(handle.get());
	if (entries.Error() != 0) {
		ThrowErrno(entries.Error());
	}
	return entries;
}

void RemoveTree(const std::string& path) {
	struct stat status {};
	if (lstat(path.c_str(), &status) != 0) {
		RequireDone(errno == ENOENT || errno == ENOTDIR);
		return;
	}
	const bool is_directory = S_ISDIR(status.st_mode);
	if (is_directory) {
		Remover(path).Run();
	}
	RequireDone((is_directory ? rmdir(path.c_str()) : unlink(path.c_str())) == 0 || errno == ENOENT);
}

} // namespace tarn::dataupdate
