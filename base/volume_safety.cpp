#include "base/volume_safety.h"

#include "base/text.h"
#include "base/unique_fd.h"

#include <climits>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <utility>

namespace tarn {

namespace {

using Finding = std::optional<UnsafePlace>;

constexpr int kMostLinks = 40; // As many as the kernel follows.
constexpr uid_t kOverflowUser = 65534;
constexpr char kOthers[] = "belongs to another user";

/** What a directory is needed for. */
enum class Role {
	kWay,  ///< Only its own entries on the way must stay what they are.
	kGoal, ///< Nobody else may make anything in it.
};

/** In a user namespace, whatever belongs to users outside of it, the machine's root among them, has one owner. */
bool IsInUserNamespace() {
	constexpr std::uint64_t kAllUsers = UINT32_MAX;
	std::ifstream map("/proc/self/uid_map");
	std::uint64_t inside = 0;
	std::uint64_t outside = 0;
	std::uint64_t count = 0;
	return map >> inside >> outside >> count && count != kAllUsers;
}

bool IsTrustedOwner(uid_t owner, Role role) {
	return owner == 0 || owner == geteuid() || (role == Role::kWay && owner == kOverflowUser && IsInUserNamespace());
}

/** Why a directory is not safe, null when it is. */
const char* Fault(const struct stat& info, Role role) {
	if (S_ISLNK(info.st_mode)) {
		return "is a link";
	}
	if (!S_ISDIR(info.st_mode)) {
		return "is no directory";
	}
	if (!IsTrustedOwner(info.st_uid, role)) {
		return kOthers;
	}
	const bool keeps_entries = role == Role::kWay && (info.st_mode & S_ISVTX) != 0;
	return (info.st_mode & (S_IWGRP | S_IWOTH)) == 0 || keeps_entries ? nullptr
	                                                                  : "can be written by its group or by others";
}

/** Puts the components of a path in front of others. */
void PutInFront(const std::string& path, std::deque<std::string>& names) {
	const std::vector<std::string> own = PathSteps(path);
	names.insert(names.begin(), own.begin(), own.end());
}

UnsafePlace RefuseUnknown(const std::string& path) {
	return {path, std::string("cannot be examined (") + std::strerror(errno) + ")"};
}

/** Goes down from the file system's root, one component after the other, each opened below the last one. */
class Walk {
public:
	Walk() : at_(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC)) {}

	/** Goes to a directory, whose own name is no link. Links on the way are followed unless things are made there. */
	Finding Go(const std::string& path, Role way) {
		PutInFront(path, names_);
		while (!names_.empty() && !missing_) {
			if (Finding finding = Step(names_.size() == 1 ? Role::kGoal : way)) {
				return finding;
			}
		}
		return std::nullopt;
	}

	/** Whether the next name is a regular file of root or the caller. */
	bool AtFile(const char* name) const {
		struct stat info = {};
		return !missing_ && fstatat(at_.Get(), name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode) &&
		       IsTrustedOwner(info.st_uid, Role::kGoal);
	}

	/** Another walk from where this one is. */
	Walk Fork() const {
		Walk copy;
		copy.at_ = UniqueFd(at_ ? fcntl(at_.Get(), F_DUPFD_CLOEXEC, 0) : -1);
		copy.path_ = path_;
		copy.missing_ = missing_;
		return copy;
	}

private:
	Finding Step(Role role) {
		const std::string name = std::move(names_.front());
		names_.pop_front();
		const std::filesystem::path here(path_);
		const std::string path = name == ".." ? here.parent_path() : here / name;
		UniqueFd next(openat(at_.Get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
		struct stat info = {};
		if (!next && errno == ENOENT) {
			missing_ = true;
			return std::nullopt;
		}
		if (!next || fstat(next.Get(), &info) != 0) {
			return RefuseUnknown(path);
		}
		if (role == Role::kWay && S_ISLNK(info.st_mode)) {
			return Follow(next, info, path);
		}
		if (const char* fault = Fault(info, role)) {
			return UnsafePlace{path, fault};
		}
		at_ = std::move(next);
		path_ = path;
		return std::nullopt;
	}

	Finding Follow(const UniqueFd& link, const struct stat& info, const std::string& path) {
		if (!IsTrustedOwner(info.st_uid, Role::kWay)) {
			return UnsafePlace{path, kOthers};
		}
		std::array<char, PATH_MAX> target = {};
		const ssize_t length = readlinkat(link.Get(), "", target.data(), target.size());
		if (length <= 0) {
			return RefuseUnknown(path);
		}
		if (++links_ > kMostLinks) {
			errno = ELOOP;
			return RefuseUnknown(path);
		}
		PutInFront(std::string(target.data(), static_cast<std::size_t>(length)), names_);
		if (target[0] == '/') {
			at_ = UniqueFd(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
			path_ = "/";
		}
		return std::nullopt;
	}

	UniqueFd at_;
	std::string path_ = "/";
	std::deque<std::string> names_;
	int links_ = 0;
	bool missing_ = false;
};

} // namespace

std::optional<UnsafePlace> FindUnsafePlace(const std::string& directory) {
	return Walk().Go(directory, Role::kWay);
}

std::optional<UnsafePlace> FindUnsafePlaceOnVolume(const std::string& volume) {
	Walk root;
	if (Finding finding = root.Go(volume, Role::kWay)) {
		return finding;
	}
	Walk databases = root.Fork();
	for (const Finding& finding : {root.Go("@tmp/data_update", Role::kGoal), databases.Go("@database", Role::kGoal)}) {
		if (finding) {
			return finding;
		}
	}
	// A file is in nobody's way: databases that come from another volume replace it.
	return databases.AtFile("autoupdate") ? std::nullopt : databases.Go("autoupdate", Role::kGoal);
}

} // namespace tarn
