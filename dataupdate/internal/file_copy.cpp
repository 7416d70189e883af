#include "dataupdate/internal/file_copy.h"

#include "base/file_io.h"
#include "base/signals.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/utils.h"

#include <boost/filesystem.hpp>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace tarn::dataupdate {

namespace {

[[noreturn]] void ThrowErrno(const std::string& what, const std::string& src, const std::string& dst = "") {
	throw boost::filesystem::filesystem_error(
	    what, src, dst, boost::system::error_code(errno, boost::system::system_category()));
}

/** Moves one block through memory, for pairs of file systems between which the kernel does not copy. */
ssize_t CopyBlock(int from, int to) {
	static constexpr std::size_t kBlockBytes = 128UL * 1024;
	std::array<char, kBlockBytes> block{};
	const ssize_t count = read(from, block.data(), block.size());
	return count <= 0 || WriteAll(to, block.data(), static_cast<std::size_t>(count)) ? count : -1;
}

bool KernelCannotCopy(int error) {
	return error == EXDEV || error == EOPNOTSUPP || error == ENOSYS || error == EINVAL || error == EPERM;
}

bool CopyContent(int from, int to) {
	static constexpr std::size_t kRequestBytes = 1UL << 30;
	bool in_kernel = true;
	while (true) {
		const ssize_t count =
		    in_kernel ? copy_file_range(from, nullptr, to, nullptr, kRequestBytes, 0) : CopyBlock(from, to);
		if (count == 0) {
			return true;
		}
		if (count > 0) {
			AddActivityBytes(static_cast<std::uint64_t>(count));
		} else if (in_kernel && KernelCannotCopy(errno)) {
			in_kernel = false;
		} else if (errno != EINTR) {
			return false;
		}
	}
}

bool FillCopy(int from, const struct stat& status, UniqueFd& to) {
	if (ioctl(to.Get(), FICLONE, from) == 0) {
		AddActivityBytes(static_cast<std::uint64_t>(status.st_size));
	} else if (!CopyContent(from, to.Get())) {
		return false;
	}
	// After the content, because the process's mask may have taken bits from the mode given at creation.
	return fchmod(to.Get(), status.st_mode & 07777) == 0 && to.Close();
}

} // namespace

void CopyRegularFile(const std::string& src, const std::string& dst) {
	// Non-blocking, so that a FIFO is refused instead of waited for.
	const UniqueFd from(open(src.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
	struct stat status {};
	if (from.Get() < 0 || fstat(from.Get(), &status) != 0) {
		ThrowErrno("open source", src, dst);
	}
	if (!S_ISREG(status.st_mode)) {
		errno = EOPNOTSUPP;
		ThrowErrno("copy what is no file", src, dst);
	}
	UniqueFd to(open(dst.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, status.st_mode & 0777));
	if (to.Get() < 0) {
		ThrowErrno("create copy", src, dst);
	}
	if (!FillCopy(from.Get(), status, to)) {
		const int error = errno;
		unlink(dst.c_str());
		errno = error;
		ThrowErrno("copy content", src, dst);
	}
}

void LinkRegularFile(const std::string& src, const std::string& dst) {
	if (linkat(AT_FDCWD, src.c_str(), AT_FDCWD, dst.c_str(), AT_SYMLINK_FOLLOW) != 0) {
		ThrowErrno("link", src, dst);
	}
}

void InstallRegularFile(const std::string& src, const std::string& dst) {
	if (linkat(AT_FDCWD, src.c_str(), AT_FDCWD, dst.c_str(), AT_SYMLINK_FOLLOW) == 0) {
		AddActivityBytes(boost::filesystem::file_size(dst));
	} else if (errno == EXDEV || errno == EMLINK || errno == EPERM || errno == EOPNOTSUPP || errno == ENOSYS) {
		CopyRegularFile(src, dst);
	} else {
		ThrowErrno("link", src, dst);
	}
}

void RemoveFile(const std::string& path) {
	if (unlink(path.c_str()) != 0 && errno != ENOENT && errno != ENOTDIR) {
		ThrowErrno("unlink", path);
	}
}

void SyncInstalled(const std::string& install_prefix) {
	if (access(install_prefix.c_str(), F_OK) == 0 || (errno != ENOENT && errno != ENOTDIR)) {
		SyncFileSystem(install_prefix);
	}
}

std::future<void> BeginToSyncInstalled(const std::string& install_prefix) {
	const process::AllSignalsBlocked blocked; // A host's handlers never run on another thread.
	return std::async(std::launch::async | std::launch::deferred, SyncInstalled, install_prefix);
}

} // namespace tarn::dataupdate
