#include <tarncore/tarncore.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <string>

namespace {

constexpr mode_t kDefaultMode = 0755;
constexpr mode_t kPermissionBits = 07777;

bool IsDirectory(const std::string& path) {
	struct stat info = {};
	if (stat(path.c_str(), &info) != 0) {
		return false;
	}
	if (!S_ISDIR(info.st_mode)) {
		errno = ENOTDIR;
		return false;
	}
	return true;
}

/** Makes one directory whose parent exists; false with errno set when there is no directory afterwards. */
bool MakeOne(const std::string& path, mode_t mode, uid_t uid, gid_t gid) {
	if (mkdir(path.c_str(), mode) == 0) {
		const bool keep = uid == static_cast<uid_t>(-1) && gid == static_cast<gid_t>(-1);
		return keep || lchown(path.c_str(), uid, gid) == 0;
	}
	// Whatever the reason, even a read-only file system, a directory that is there already is all we need.
	const int reason = errno;
	if (IsDirectory(path)) {
		return true;
	}
	if (reason != EEXIST) {
		errno = reason;
	}
	return false;
}

bool MakeWithParents(const std::string& path, mode_t mode, uid_t uid, gid_t gid) {
	if (path.empty()) {
		errno = ENOENT;
		return false;
	}
	std::size_t end = 0;
	do {
		end = path.find('/', end + 1);
		if (!MakeOne(path.substr(0, end), mode, uid, gid)) {
			return false;
		}
	} while (end != std::string::npos);
	return true;
}

} // namespace

int TLIBCFileExist(const char* path) {
	struct stat info = {};
	return path != nullptr && stat(path, &info) == 0 ? 1 : 0;
}

int TARNFSMkdirP(const char* path, mode_t mode, unsigned int flags, uid_t uid, gid_t gid, int /*extra*/) {
	if (path == nullptr || flags != 0 || (mode & ~kPermissionBits) != 0) {
		TLIBCErrSet(EINVAL);
		return 0;
	}
	try {
		if (MakeWithParents(path, mode == 0 ? kDefaultMode : mode, uid, gid)) {
			return 1;
		}
		TLIBCErrSet(errno);
	} catch (const std::exception&) {
		TLIBCErrSet(ENOMEM);
	}
	return 0;
}
