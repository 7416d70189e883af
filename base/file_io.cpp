#include "base/file_io.h"

#include "base/error.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

namespace tarn {

UniqueFd OpenRegularFile(int directory, const std::string& path) {
	// O_NONBLOCK, because opening a FIFO for reading would otherwise wait for a writer.
	UniqueFd fd(openat(directory, path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
	if (!fd) {
		if (errno == ELOOP) {
			throw Error("is a symbolic link, not a regular file");
		}
		ThrowErrno("cannot open");
	}
	struct stat status {};
	if (fstat(fd.Get(), &status) != 0) {
		ThrowErrno("cannot get status");
	}
	if (!S_ISREG(status.st_mode)) {
		throw Error("is not a regular file");
	}
	return fd;
}

bool ReadFullyAt(int fd, void* buffer, std::size_t size, std::uint64_t offset) {
	auto* to = static_cast<char*>(buffer);
	while (size > 0) {
		const ssize_t count = pread(fd, to, size, static_cast<off_t>(offset));
		if (count < 0) {
			if (errno == EINTR) {
				continue;
			}
			ThrowErrno("cannot read");
		}
		if (count == 0) {
			return false;
		}
		const auto done = static_cast<std::size_t>(count);
		to += done;
		offset += done;
		size -= done;
	}
	return true;
}

void WriteFully(int fd, const void* buffer, std::size_t size, const std::string& path) {
	const auto* from = static_cast<const char*>(buffer);
	while (size > 0) {
		const ssize_t count = write(fd, from, size);
		if (count < 0) {
			if (errno == EINTR) {
				continue;
			}
			ThrowErrno("cannot write " + path);
		}
		from += count;
		size -= static_cast<std::size_t>(count);
	}
}

std::string ReadSmallFile(int fd, std::size_t limit, const std::string& path) {
	struct stat status {};
	if (fstat(fd, &status) != 0) {
		ThrowErrno("cannot get status of " + path);
	}
	if (static_cast<std::uint64_t>(status.st_size) > limit) {
		throw Error(path + " is larger than " + std::to_string(limit) + " bytes");
	}
	std::string content(static_cast<std::size_t>(status.st_size), '\0');
	if (!ReadFullyAt(fd, content.data(), content.size(), 0)) {
		throw Error(path + " became shorter while it was read");
	}
	return content;
}

} // namespace tarn
