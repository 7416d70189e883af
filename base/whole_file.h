/** @file Files that are never seen half written. */
#ifndef BASE_WHOLE_FILE_H
#define BASE_WHOLE_FILE_H

#include "base/unique_fd.h"

#include <sys/types.h>

#include <string>
#include <utility>

namespace tarn {

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

/** Makes a file that is not there yet, open for reading and writing; an object without a descriptor, with errno set,
 * when that fails. */
[[nodiscard]] Draft CreateDraft(const std::string& name, mode_t mode);

/** Brings a directory's entries to the disk; false with errno set when that fails. */
[[nodiscard]] bool SyncDirectory(const std::string& path);

/**
 * Writes a file (mode 0644) beside its place, brings it to the disk and renames it. Throws Error naming the path;
 * nothing is then left beside it. The name beside it begins with a dot and ends in ".tmp", for which collectors of
 * files by suffix don't look.
 */
void WriteWholeFile(const std::string& path, const std::string& content);

} // namespace tarn

#endif
