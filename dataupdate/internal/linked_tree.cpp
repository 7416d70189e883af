#include "dataupdate/internal/linked_tree.h"

#include "base/unique_fd.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/directories.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <set>
#include <system_error>
#include <utility>

namespace tarn::dataupdate {

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kTick = 20'000'000; // Of the clock by which a file system dates changes, and as much again.
constexpr std::int64_t kWholeSeconds = 2 * kSecond; // Where a file system keeps no fractions.

/** Attributes that a file system gives by itself, or that tell how it stores a directory. */
constexpr int kFlagsOfStorage = FS_INDEX_FL | FS_HUGE_FILE_FL | FS_EXTENT_FL | FS_EA_INODE_FL | FS_INLINE_DATA_FL;

[[noreturn]] void ThrowErrno(const std::string& path, int error = errno) {
	throw std::system_error(error, std::system_category(), path);
}

void RequireDone(bool is_done, const std::string& path) {
	if (!is_done) {
		ThrowErrno(path);
	}
}

UniqueFd OpenDirectory(int above, const char* name) {
	UniqueFd directory(openat(above, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
	RequireDone(static_cast<bool>(directory), name);
	return directory;
}

/** Moved with the directory that holds it, a mounted file or directory would vanish from its place. */
void RequireNoMount(int directory, const char* name, const std::string& path) {
	struct statx status {};
	RequireDone(statx(directory, name, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH, 0, &status) == 0, path);
	if ((status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) {
		ThrowErrno(path, EBUSY);
	}
}

/** A change that comes right after another one may get the same time. */
void RequireSettled(const timespec& changed, const std::string& path) {
	timespec now{};
	clock_gettime(CLOCK_REALTIME, &now);
	const std::int64_t age = (now.tv_sec - changed.tv_sec) * kSecond + now.tv_nsec - changed.tv_nsec;
	if (age < (changed.tv_nsec == 0 ? kWholeSeconds : kTick)) {
		ThrowErrno(path, EAGAIN);
	}
}

/** A list or value of extended attributes: read(memory, size) fills the memory, or tells the size if that is 0. */
template<typename Read>
std::string Attributes(const std::string& path, const Read& read) {
	const ssize_t size = read(nullptr, 0);
	std::string text(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
	const ssize_t count = text.empty() ? size : read(text.data(), text.size());
	RequireDone(count >= 0 || errno == EOPNOTSUPP, path);
	text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
	return text;
}

std::set<std::string> AttributeNames(int directory, const std::string& path) {
	const std::string names =
	    Attributes(path, [&](char* memory, std::size_t size) { return flistxattr(directory, memory, size); });
	std::set<std::string> found;
	for (std::size_t begin = 0; begin < names.size(); begin = names.find('\0', begin) + 1) {
		found.emplace(&names[begin]);
	}
	return found;
}

void CopyAttribute(int from, int to, const std::string& name, const std::string& path) {
	const std::string value =
	    Attributes(path, [&](char* memory, std::size_t size) { return fgetxattr(from, name.c_str(), memory, size); });
	RequireDone(fsetxattr(to, name.c_str(), value.data(), value.size(), 0) == 0, path);
}

/** One that the copy has got from the directory above it, which is not the original's, is taken away. */
void CopyExtendedAttributes(int from, int to, const std::string& path) {
	const std::set<std::string> names = AttributeNames(from, path);
	for (const std::string& name : names) {
		CopyAttribute(from, to, name, path);
	}
	for (const std::string& name : AttributeNames(to, path)) {
		RequireDone(names.count(name) > 0 || fremovexattr(to, name.c_str()) == 0, path);
	}
}

/** As chattr(1) sets them. 0 where there are none. */
int FlagsOf(int directory) {
	int flags = 0;
	return ioctl(directory, FS_IOC_GETFLAGS, &flags) == 0 ? flags & ~kFlagsOfStorage : 0;
}

void CopyOwnerAndAttributes(int from, const struct stat& status, int to, const std::string& path) {
	// The mode after the owner, which takes bits of the mode away.
	RequireDone(fchown(to, status.st_uid, status.st_gid) == 0 && fchmod(to, status.st_mode & 07777) == 0, path);
	CopyExtendedAttributes(from, to, path);
	if (FlagsOf(from) != FlagsOf(to)) {
		ThrowErrno(path, EOPNOTSUPP);
	}
}

struct stat StatusOf(int directory, const std::string& path) {
	struct stat status {};
	RequireDone(fstat(directory, &status) == 0, path);
	return status;
}

void CopyTimes(const struct stat& status, int to, const std::string& path) {
	const std::array<timespec, 2> times = {status.st_atim, status.st_mtim};
	RequireDone(futimens(to, times.data()) == 0, path);
}

} // namespace

/** Holds two descriptors for each level of directories: a tree that is deeper than there are any cannot be copied. */
class LinkedTree::Linker {
public:
	Linker(std::vector<Directory>& directories, std::string original, const IsReplaced& is_replaced)
	    : directories_(directories), original_(std::move(original)), is_replaced_(is_replaced) {}

	/** The name is empty for the whole, else it begins with a slash. */
	void Fill(const UniqueFd& from, const UniqueFd& to, const std::string& name) {
		InterruptionPoint();
		const std::string path = original_ + name;
		RequireNoMount(from.Get(), "", path);
		const struct stat status =
		    StatusOf(from.Get(), path); // Before the names are read, so that no change is missed.
		RequireSettled(status.st_ctim, path);
		directories_.push_back({path, status.st_dev, status.st_ino, status.st_ctim});
		CopyOwnerAndAttributes(from.Get(), status, to.Get(), path);
		ReadDirectory(from.Get()).ForEach([&](const char* entry, bool is_directory) {
			if (is_directory) {
				FillDirectory(from, to, entry, name + "/" + entry);
			} else {
				FillFile(from, to, entry, name + "/" + entry);
			}
		});
		CopyTimes(status, to.Get(), path);
	}

private:
	void FillDirectory(const UniqueFd& from, const UniqueFd& to, const char* entry, const std::string& name) {
		RequireDone(mkdirat(to.Get(), entry, S_IRWXU) == 0, original_ + name);
		Fill(OpenDirectory(from.Get(), entry), OpenDirectory(to.Get(), entry), name);
	}

	void FillFile(const UniqueFd& from, const UniqueFd& to, const char* entry, const std::string& name) {
		if (is_replaced_(name.substr(1))) {
			RequireNoMount(from.Get(), entry, original_ + name);
		} else if (linkat(from.Get(), entry, to.Get(), entry, 0) != 0) {
			ThrowErrno(original_ + name); // Its name is made only for a failure: many files are linked.
		}
	}

	std::vector<Directory>& directories_;
	const std::string original_;
	const IsReplaced& is_replaced_;
};

LinkedTree::LinkedTree(const std::string& original, const std::string& copy, const IsReplaced& is_replaced) {
	RequireDone(mkdir(copy.c_str(), S_IRWXU) == 0, copy);
	Linker(directories_, original, is_replaced)
	    .Fill(OpenDirectory(AT_FDCWD, original.c_str()), OpenDirectory(AT_FDCWD, copy.c_str()), "");
}

bool LinkedTree::IsCurrent() const {
	return std::all_of(directories_.begin(), directories_.end(), [](const Directory& before) {
		struct stat now {};
		return lstat(before.path.c_str(), &now) == 0 && now.st_dev == before.device && now.st_ino == before.inode &&
		       now.st_ctim.tv_sec == before.changed.tv_sec && now.st_ctim.tv_nsec == before.changed.tv_nsec;
	});
}

} // namespace tarn::dataupdate
