#include "base/file_io.h"

#include "base/error.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace tarn {

namespace {

constexpr std::string_view kRandom = "XXXXXX";
constexpr std::string_view kDraftEnd = ".tmp";

/** Tells RemoveLeftDrafts() that a draft is not left; false when that has removed it already. */
bool Claim(int fd) {
	struct stat status {};
	const bool is_free = flock(fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
	return is_free && fstat(fd, &status) == 0 && status.st_nlink > 0;
}

Draft CreateBeside(const std::filesystem::path& path) {
	while (true) {
		std::string name = path.parent_path() / ("." + path.filename().string() + ".");
		name.append(kRandom).append(kDraftEnd);
		UniqueFd fd(mkostemps(name.data(), static_cast<int>(kDraftEnd.size()), O_CLOEXEC));
		if (!fd || Claim(fd.Get())) {
			return {std::move(fd), name};
		}
	}
}

bool IsDraftName(const std::string& name) {
	const std::size_t end = kRandom.size() + kDraftEnd.size();
	return name.size() > end + 2 && name.front() == '.' && name[name.size() - end - 1] == '.' &&
	       name.compare(name.size() - kDraftEnd.size(), kDraftEnd.size(), kDraftEnd) == 0;
}

void RemoveUnlessClaimed(const std::string& path) {
	const UniqueFd draft(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
	if (draft && flock(draft.Get(), LOCK_EX | LOCK_NB) == 0) {
		unlink(path.c_str());
	}
}

} // namespace

bool WriteAll(int fd, const void* buffer, std::size_t size) {
	const auto* from = static_cast<const char*>(buffer);
	while (size > 0) {
		const ssize_t count = RetryOnInterrupt([&] { return write(fd, from, size); });
		if (count < 0) {
			return false;
		}
		from += count;
		size -= static_cast<std::size_t>(count);
	}
	return true;
}

ssize_t ReadAllAt(int fd, void* buffer, std::size_t size, std::uint64_t offset) {
	auto* const to = static_cast<char*>(buffer);
	std::size_t done = 0;
	while (done < size) {
		const ssize_t count =
		    RetryOnInterrupt([&] { return pread(fd, to + done, size - done, static_cast<off_t>(offset + done)); });
		if (count < 0) {
			return -1;
		}
		if (count == 0) {
			break;
		}
		done += static_cast<std::size_t>(count);
	}
	return static_cast<ssize_t>(done);
}

UniqueFd OpenRegularFile(int directory, const std::string& path) {
	// O_NONBLOCK, because opening a FIFO for reading would otherwise wait for a writer.
	UniqueFd fd(openat(directory, path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
	if (!fd) {
		Require(errno != ELOOP, "is a symbolic link, not a regular file");
		Require(errno != ENOENT, "is missing");
		ThrowErrno("cannot be opened");
	}
	struct stat status {};
	RequireCall(fstat(fd.Get(), &status) == 0, "cannot get status");
	Require(S_ISREG(status.st_mode), "is not a regular file");
	return fd;
}

bool ReadFullyAt(int fd, void* buffer, std::size_t size, std::uint64_t offset) {
	const ssize_t count = ReadAllAt(fd, buffer, size, offset);
	RequireCall(count >= 0, "cannot read");
	return static_cast<std::size_t>(count) == size;
}

void WriteFully(int fd, const void* buffer, std::size_t size, const std::string& path) {
	if (!WriteAll(fd, buffer, size)) {
		ThrowErrno("cannot write " + path);
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

Draft& Draft::operator=(Draft&& other) noexcept {
	std::swap(fd_, other.fd_);
	std::swap(name_, other.name_);
	return *this;
}

Draft::~Draft() {
	if (fd_ && !name_.empty()) {
		unlink(name_.c_str());
	}
}

bool Draft::TakePlace(const std::string& path) {
	if (std::rename(name_.c_str(), path.c_str()) != 0) {
		return false;
	}
	Keep();
	return true;
}

Draft CreateDraft(const std::string& name, mode_t mode) {
	return {UniqueFd(open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode)), name};
}

bool LockExclusively(int fd, const std::function<void()>& waiting) {
	if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
		return true;
	}
	if (errno == EWOULDBLOCK) {
		waiting();
	}
	return RetryOnInterrupt([fd] { return flock(fd, LOCK_EX); }) == 0;
}

bool SyncFile(const std::string& path) {
	const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
	return file ? fsync(file.Get()) == 0 : errno == ENOENT;
}

void OpenStandardStreams() {
	for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
		if (fcntl(stream, F_GETFD) == -1) {
			// The lowest number that is free. Without /dev/null nothing can be done.
			[[maybe_unused]] const int opened = open("/dev/null", O_RDWR);
		}
	}
}

bool SyncDirectory(const std::string& path) {
	const UniqueFd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	return directory && fsync(directory.Get()) == 0;
}

void WriteWholeFile(const std::string& path, const std::string& content) {
	WriteWholeFile(path, [&content](const TextSink& sink) { sink(content); });
}

void WriteWholeFile(const std::string& path, const std::function<void(const TextSink& sink)>& write) {
	constexpr mode_t kMode = 0644;
	constexpr std::size_t kBufferBytes = std::size_t{64} << 10U;
	const auto require = [&path](bool is_done) {
		if (!is_done) {
			throw Error("The file " + path + " cannot be written (" + std::strerror(errno) + ")");
		}
	};
	Draft draft = CreateBeside(path);
	require(static_cast<bool>(draft));
	std::string buffer;
	write([&](std::string_view text) {
		buffer += text;
		if (buffer.size() >= kBufferBytes) {
			require(WriteAll(draft.Fd(), buffer.data(), buffer.size()));
			buffer.clear();
		}
	});
	require(WriteAll(draft.Fd(), buffer.data(), buffer.size()) && fchmod(draft.Fd(), kMode) == 0 &&
	        fsync(draft.Fd()) == 0 && draft.TakePlace(path));
}

void RemoveLeftDrafts(const std::string& directory) {
	std::error_code error;
	for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
	     entry.increment(error)) {
		if (IsDraftName(entry->path().filename())) {
			RemoveUnlessClaimed(entry->path());
		}
	}
}

} // namespace tarn
