/** @file Reading and writing files, and files that appear whole. */
#ifndef BASE_FILE_IO_H
#define BASE_FILE_IO_H

#include "base/unique_fd.h"

#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace tarn {

/** Calls until the call isn't interrupted by a signal. */
template<typename Call>
auto RetryOnInterrupt(Call call) {
	auto result = call();
	while (result == -1 && errno == EINTR) {
		result = call();
	}
	return result;
}

/** Writes all of the buffer at the descriptor's position; false with errno set when that fails. */
[[nodiscard]] bool WriteAll(int fd, const void* buffer, std::size_t size);

/** Reads from an offset until the buffer is full or the file ends; the bytes read, or -1 with errno set. */
[[nodiscard]] ssize_t ReadAllAt(int fd, void* buffer, std::size_t size, std::uint64_t offset);

/** Opens a regular file for reading, links not followed. The directory is a descriptor or AT_FDCWD. Throws Error. */
[[nodiscard]] UniqueFd OpenRegularFile(int directory, const std::string& path);

/** ReadAllAt() for a full buffer: false when the file ends before, Error when it cannot be read. */
[[nodiscard]] bool ReadFullyAt(int fd, void* buffer, std::size_t size, std::uint64_t offset);

/** WriteAll() that throws Error naming the path. */
void WriteFully(int fd, const void* buffer, std::size_t size, const std::string& path);

/** The whole of a small open file; throws Error when it is larger than the limit. */
[[nodiscard]] std::string ReadSmallFile(int fd, std::size_t limit, const std::string& path);

/**
 * A new file that is removed with this object unless it is kept or has taken another file's place. A killed process
 * leaves it behind.
 */
class Draft {
public:
	Draft() = default;
	/** Takes over an open file and its name, which is empty while the file has none. */
	Draft(UniqueFd fd, std::string name) : fd_(std::move(fd)), name_(std::move(name)) {}
	Draft(Draft&& other) noexcept : fd_(std::move(other.fd_)), name_(std::exchange(other.name_, {})) {}
	Draft& operator=(Draft&& other) noexcept;
	Draft(const Draft&) = delete;
	Draft& operator=(const Draft&) = delete;
	~Draft();

	explicit operator bool() const { return static_cast<bool>(fd_); }
	int Fd() const { return fd_.Get(); }
	const std::string& Name() const { return name_; }
	/** For a file that was given its name after it was made. */
	void SetName(const std::string& name) { name_ = name; }

	void Keep() { name_.clear(); }
	/**
	 * Renames it: whoever opens the path finds all of the old content or all of the new. False with errno set when that
	 * fails. Syncs nothing.
	 */
	[[nodiscard]] bool TakePlace(const std::string& path);

private:
	UniqueFd fd_;
	std::string name_;
};

/**
 * Opens /dev/null for each of the streams 0 to 2 that is closed; to be called first of all. A file that is opened later
 * would else become such a stream, and get what is said on it.
 */
void OpenStandardStreams();

/** Makes a file that is not there yet, open for reading and writing; an object without a descriptor, with errno set,
 * when that fails. */
[[nodiscard]] Draft CreateDraft(const std::string& name, mode_t mode);

/**
 * Takes the exclusive flock() of an open file; while another open file holds a lock, calls the function once and waits.
 * False with errno set when that fails.
 */
[[nodiscard]] bool LockExclusively(int fd, const std::function<void()>& waiting);

/** Brings a file's content to the disk, if there is such a file; false with errno set when that fails. */
[[nodiscard]] bool SyncFile(const std::string& path);

/** Brings a directory's entries to the disk; false with errno set when that fails. */
[[nodiscard]] bool SyncDirectory(const std::string& path);

/**
 * Writes a file (mode 0644) beside its place, brings it to the disk and renames it. Throws Error naming the path;
 * nothing is then left beside it. The name beside it begins with a dot and ends in ".tmp", for which collectors of
 * files by suffix don't look.
 */
void WriteWholeFile(const std::string& path, const std::string& content);

/** Removes what WriteWholeFile() left in a directory when it was killed, or the power went. */
void RemoveLeftDrafts(const std::string& directory);

/** Writes pieces of text to a file; throws Error naming the path when that fails. */
using TextSink = std::function<void(std::string_view text)>;

/** The same for a content that is too large to be held: a function hands it over piece by piece. */
void WriteWholeFile(const std::string& path, const std::function<void(const TextSink& sink)>& write);

} // namespace tarn

#endif
