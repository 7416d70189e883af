#include "decoder/input_file.h"

#include "base/file_io.h"
#include "base/text.h"
#include "decoder/decode_error.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

namespace tarn::decoder {

void FailWithErrno(const std::string& name, const std::string& what) {
	throw DecodeError(ErrnoText(name + " could not be " + what, errno) + ".");
}

void ReadFileAt(int fd, const std::string& name, std::uint64_t offset, Byte* to, std::size_t length) {
	const ssize_t count = ReadAllAt(fd, to, length, offset);
	if (count < 0) {
		FailWithErrno(name, "read");
	}
	if (static_cast<std::size_t>(count) < length) {
		throw DecodeError(name + " became shorter while it was read.");
	}
}

InputFile::InputFile(std::string path)
    : path_(std::move(path)),
      // Opening a FIFO would otherwise wait for somebody to write into it.
      fd_(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {
	struct stat status = {};
	if (!fd_ || fstat(fd_.Get(), &status) != 0) {
		FailWithErrno(path_, "opened");
	}
	if (!S_ISREG(status.st_mode)) {
		throw DecodeError(path_ + " is not a regular file.");
	}
	size_ = static_cast<std::uint64_t>(status.st_size);
	device_ = status.st_dev;
	inode_ = status.st_ino;
}

bool InputFile::IsAt(const std::string& path) const {
	struct stat status = {};
	return stat(path.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_;
}

} // namespace tarn::decoder
