#include "decoder/files.h"

#include "base/text.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <random>

namespace tarn::decoder {

namespace {

/** Throws a DecodeError that says what could not be done with a file, and the present errno's text. */
[[noreturn]] void FailWithErrno(const std::string& name, const std::string& what) {
	throw DecodeError(ErrnoText(name + " could not be " + what, errno) + ".");
}

/** Reads exactly these bytes of an open file. Throws DecodeError, also when the file ends before. */
void ReadFileAt(int fd, const std::string& name, std::uint64_t offset, Byte* to, std::size_t length) {
	const ssize_t count = ReadAllAt(fd, to, length, offset);
	if (count < 0) {
		FailWithErrno(name, "read");
	}
	if (static_cast<std::size_t>(count) < length) {
		throw DecodeError(name + " became shorter while it was read.");
	}
}

constexpr mode_t kMode = 0666; // less the umask, as for every new file
constexpr unsigned kNamesToTry = 100;

std::string DirectoryOf(const std::string& path) {
	const std::size_t slash = path.rfind('/');
	return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

std::string DescriptorPath(int fd) {
	return "/proc/self/fd/" + std::to_string(fd);
}

/** A nameless file, or none where it could not be given a name later. */
UniqueFd OpenNameless(const std::string& directory) {
	UniqueFd fd(open(directory.c_str(), O_RDWR | O_TMPFILE | O_CLOEXEC, kMode));
	if (fd && access(DescriptorPath(fd.Get()).c_str(), F_OK) != 0) {
		return {};
	}
	return fd;
}

void RequireFileOrNothing(const std::string& path) {
	struct stat status = {};
	if (path.empty() || path.back() == '/') {
		throw DecodeError("\"" + path + "\" is not a file's name.");
	}
	if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
		throw DecodeError(path + " exists and is not a regular file.");
	}
}

} // namespace

InputFile::InputFile(std::string path)
    : path_(std::move(path)),
      // Opening a FIFO would otherwise wait for somebody to write into it.
      fd_(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {
	if (!fd_ || fstat(fd_.Get(), &status_) != 0) {
		FailWithErrno(path_, "opened");
	}
	if (!S_ISREG(status_.st_mode)) {
		throw DecodeError(path_ + " is not a regular file.");
	}
}

void InputFile::ReadAt(std::uint64_t offset, Byte* to, std::size_t length) const {
	ReadFileAt(fd_.Get(), path_, offset, to, length);
}

bool InputFile::IsAt(const std::string& path) const {
	struct stat status = {};
	return stat(path.c_str(), &status) == 0 && status.st_dev == status_.st_dev && status.st_ino == status_.st_ino;
}

OutputFile::OutputFile(std::string path) : path_(std::move(path)) {
	RequireFileOrNothing(path_);
	draft_ = Draft(OpenNameless(DirectoryOf(path_)), "");
	if (!draft_) {
		CreateNamed();
	}
}

std::string OutputFile::DrawTemporaryName() const {
	std::random_device chance;
	const std::size_t name_begin = path_.rfind('/') + 1;
	// Cut, so that a name of the greatest length still has one beside it.
	constexpr std::size_t kKept = 200;
	return path_.substr(0, name_begin) + "." + path_.substr(name_begin, kKept) + "." + std::to_string(chance()) +
	       ".part";
}

void OutputFile::CreateNamed() {
	for (unsigned tries = 0; tries < kNamesToTry; ++tries) {
		draft_ = CreateDraft(DrawTemporaryName(), kMode);
		if (draft_) {
			return;
		}
		if (errno != EEXIST) {
			break;
		}
	}
	FailWithErrno(path_, "created");
}

void OutputFile::ReadAt(std::uint64_t offset, Byte* to, std::size_t length) const {
	ReadFileAt(draft_.Fd(), path_, offset, to, length);
}

void OutputFile::Append(const Byte* from, std::size_t length) {
	if (!WriteAll(draft_.Fd(), from, length)) {
		FailWithErrno(path_, "written");
	}
	size_ += length;
}

bool OutputFile::Link(const std::string& name) const {
	if (linkat(AT_FDCWD, DescriptorPath(draft_.Fd()).c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
		return true;
	}
	if (errno != EEXIST) {
		FailWithErrno(path_, "put in place");
	}
	return false;
}

void OutputFile::LinkTemporary() {
	for (unsigned tries = 0; tries < kNamesToTry; ++tries) {
		const std::string name = DrawTemporaryName();
		if (Link(name)) {
			draft_.SetName(name);
			return;
		}
	}
	FailWithErrno(path_, "put in place");
}

void OutputFile::Commit() {
	if (draft_.Name().empty()) {
		if (Link(path_)) {
			return;
		}
		// A second name cannot be made over the first of another file; only renaming replaces.
		LinkTemporary();
	}
	if (!draft_.TakePlace(path_)) {
		FailWithErrno(path_, "put in place");
	}
}

} // namespace tarn::decoder
