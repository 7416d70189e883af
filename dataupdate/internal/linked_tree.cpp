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
#include <cstring>
#include <ctime>
#include <set>
#include <system_error>
#include <utility>

namespace tarn::dataupdate {

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kTick = 20'000'000;       // Of the clock by which a file system dates changes, and as much again.
constexpr std::int64_t kWholeSeconds = 2 * kSecond; // Where a file system keeps no fractions.

/** Attributes that a file system gives by itself, or that tell how it stores a directory. */
constexpr int kFlagsOfStorage = 0x1000 | 0x40000 | 0x80000 | 0x200000 | 0x10000000; // index, huge, extents, value, inline

[[noreturn]] void ThrowErrno(const std::string& what, int error = errno) {
	throw std::system_error(error, std::system_category(), what);
}

UniqueFd OpenDirectory(int above, const char* name) {
	UniqueFd directory(openat(above, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
	if (!directory) {
		ThrowErrno(name);
	}
	return directory;
}

/** Moved with the directory that holds it, a mounted file or directory would vanish from its place. */
void RequireNoMount(int directory, const char* name) {
	struct statx status {};
	if (statx(directory, name, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH, 0, &status) != 0) {
		ThrowErrno(name);
	}
	if ((status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) {
		ThrowErrno(name, EBUSY);
	}
}

/** A change that comes right after another one may get the same time. */
void RequireSettled(const timespec& changed, const std::string& name) {
	timespec now{};
	clock_gettime(CLOCK_REALTIME, &now);
	const std::int64_t age = (now.tv_sec - changed.tv_sec) * kSecond + now.tv_nsec - changed.tv_nsec;
	if (age < (changed.tv_nsec == 0 ? kWholeSeconds : kTick)) {
		ThrowErrno(name, EAGAIN);
	}
}

std::set<std::string> AttributeNames(int directory) {
	std::array<char, XATTR_LIST_MAX> names{};
	const ssize_t size = flistxattr(directory, names.data(), names.size());
	if (size < 0 && errno != EOPNOTSUPP) {
		ThrowErrno("extended attributes");
	}
	std::set<std::string> found;
	for (const char* name = names.data(); name < names.data() + size; name += std::strlen(name) + 1) {
		found.insert(name);
	}
	return found;
}

void CopyAttribute(int from, int to, const std::string& name) {
	std::vector<char> value(XATTR_SIZE_MAX);
	const ssize_t size = fgetxattr(from, name.c_str(), value.data(), value.size());
	if (size < 0 || fsetxattr(to, name.c_str(), value.data(), static_cast<std::size_t>(size), 0) != 0) {
		ThrowErrno(name);
	}
}

/** One that the copy has got from the directory above it, which is not the original's, is taken away. */
void CopyExtendedAttributes(int from, int to) {
	const std::set<std::string> names = AttributeNames(from);
	for (const std::string& name : names) {
		CopyAttribute(from, to, name);
	}
	for (const std::string& name : AttributeNames(to)) {
		if (names.count(name) == 0 && fremovexattr(to, name.c_str()) != 0) {
			ThrowErrno(name);
		}
	}
}

/** As chattr(1) sets them. 0 where there are none. */
int FlagsOf(int directory) {
	int flags = 0;
	return ioctl(directory, FS_IOC_GETFLAGS, &flags) == 0 ? flags & ~kFlagsOfStorage : 0;
}

void CopyOwnerAndAttributes(int from, const struct stat& status, int to) {
	// The mode after the owner, which takes bits of the mode away.
	if (fchown(to, status.st_uid, status.st_gid) != 0 || fchmod(to, status.st_mode & 07777) != 0) {
		ThrowErrno("owner and mode");
	}
	CopyExtendedAttributes(from, to);
	if (FlagsOf(from) != FlagsOf(to)) {
		ThrowErrno("attributes of files", EOPNOTSUPP);
	}
}

struct stat StatusOf(int directory) {
	struct stat status {};
	if (fstat(directory, &status) != 0) {
		ThrowErrno("status");
	}
	return status;
}

void CopyTimes(const struct stat& status, int to) {
	const std::array<timespec, 2> times = {status.st_atim, status.st_mtim};
	if (futimens(to, times.data()) != 0) {
		ThrowErrno("times");
	}
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
		RequireNoMount(from.Get(), "");
		const struct stat status = StatusOf(from.Get()); // Before the names are read, so that no change is missed.
		RequireSettled(status.st_ctim, original_ + name);
		directories_.push_back({original_ + name, status.st_dev, status.st_ino, status.st_ctim});
		CopyOwnerAndAttributes(from.Get(), status, to.Get());
		ReadDirectory(from.Get()).ForEach([&](const char* entry, bool is_directory) {
			if (is_directory) {
				FillDirectory(from, to, entry, name + "/" + entry);
			} else {
				FillFile(from, to, entry, name + "/" + entry);
			}
		});
		CopyTimes(status, to.Get());
	}

private:
	void FillDirectory(const UniqueFd& from, const UniqueFd& to, const char* entry, const std::string& name) {
		if (mkdirat(to.Get(), entry, S_IRWXU) != 0) {
			ThrowErrno(original_ + name);
		}
		Fill(OpenDirectory(from.Get(), entry), OpenDirectory(to.Get(), entry), name);
	}

	void FillFile(const UniqueFd& from, const UniqueFd& to, const char* entry, const std::string& name) {
		if (is_replaced_(name.substr(1))) {
			RequireNoMount(from.Get(), entry);
		} else if (linkat(from.Get(), entry, to.Get(), entry, 0) != 0) {
			ThrowErrno(original_ + name);
		}
	}

	std::vector<Directory>& directories_;
	const std::string original_;
	const IsReplaced& is_replaced_;
};

LinkedTree::LinkedTree(const std::string& original, const std::string& copy, const IsReplaced& is_replaced) {
	if (mkdir(copy.c_str(), S_IRWXU) != 0) {
		ThrowErrno(copy);
	}
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
