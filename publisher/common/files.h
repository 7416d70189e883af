/** @file Files that are read to their end, and files and directories that appear whole or not at all. */
#ifndef PUBLISHER_COMMON_FILES_H
#define PUBLISHER_COMMON_FILES_H

#include "base/file_io.h"
#include "base/unique_fd.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::publisher {

/** A regular file with the size that it has when it is opened. Failures are PublishError, naming the file. */
class InputFile {
public:
	explicit InputFile(std::string path);

	std::uint64_t Size() const { return size_; }
	/** The next bytes, valid until the next call; empty at the end. */
	[[nodiscard]] std::string_view Next();

private:
	std::string path_;
	UniqueFd fd_;
	std::uint64_t size_ = 0;
	std::uint64_t position_ = 0;
	std::vector<char> block_;
};

/** Whether two files hold the same bytes; throws PublishError. */
[[nodiscard]] bool SameBytes(const std::string& left, const std::string& right);

/** What the names of everything begin with that is not finished; web servers must not serve such names. */
constexpr const char* kTemporaryPrefix = ".tarndbudpub-";

/**
 * A file that appears under its name whole or not at all. A publisher that is killed before leaves only a temporary
 * file beside, which RemoveLeftovers() removes.
 */
class ReplacingFile {
public:
	/** Creates the temporary file, and the directories above it; throws PublishError. */
	explicit ReplacingFile(std::string path);

	int Fd() const { return draft_.Fd(); }
	const std::string& TemporaryPath() const { return draft_.Name(); }
	/** Puts the file in place and makes that durable; throws PublishError. */
	void Commit();

private:
	std::string path_;
	Draft draft_;
};

/**
 * Makes a directory and those above it, which the web server can read whatever the publisher's umask is. Leaves
 * directories as they are that exist already. Throws PublishError.
 */
void MakeServedDirectories(const std::string& directory);

/**
 * The exclusive lock on a file, which is made where it is missing; calls the function once when another process has
 * the lock, and waits for it. Throws PublishError.
 */
[[nodiscard]] UniqueFd LockFile(const std::string& path, const std::function<void()>& waiting);

/** The paths in a directory, in byte order; none when it is missing. Throws PublishError. */
[[nodiscard]] std::vector<std::filesystem::path> PathsIn(const std::string& directory);

/** What killed publishers left in a directory, or a running publisher works with. Throws PublishError. */
[[nodiscard]] std::vector<std::string> Leftovers(const std::string& directory);
/** Removes what killed publishers left in a directory, work directories too; the caller holds the repository's lock. */
void RemoveLeftovers(const std::string& directory);

/**
 * A directory that is removed with the object, and by RemoveLeftovers() after a publisher was killed. It lies in the
 * repository, because the administrator has provided room for the data there; a temporary directory is often small, or
 * in memory. Only its owner may enter it, so that a web server that runs as another user serves nothing of it.
 */
class WorkDirectory {
public:
	/** @throws PublishError */
	explicit WorkDirectory(const std::string& repository);
	WorkDirectory(const WorkDirectory&) = delete;
	WorkDirectory& operator=(const WorkDirectory&) = delete;
	~WorkDirectory();

	[[nodiscard]] const std::string& Path() const { return path_; }
	std::string operator/(const std::string& name) const { return path_ + "/" + name; }
	/** Makes a directory in it and returns its path. */
	[[nodiscard]] std::string Make(const std::string& name) const;

private:
	std::string path_;
};

} // namespace tarn::publisher

#endif
