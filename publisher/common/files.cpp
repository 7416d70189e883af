#include "publisher/common/files.h"

#include "base/error.h"
#include "base/text.h"
#include "publisher/common/publish_error.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace tarn::publisher {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void Fail(const std::string& path, const Error& error) {
	throw PublishError(path + " cannot be read: it " + error.what() + ".");
}

constexpr mode_t kServedMode = 0644; // a web server reads it, whatever the publisher's umask

[[noreturn]] void Fail(const std::string& path, const std::string& what) {
	throw PublishError(ErrnoText(path + " could not be " + what, errno) + ".");
}

} // namespace

InputFile::InputFile(std::string path) : path_(std::move(path)) {
	try {
		fd_ = OpenRegularFile(AT_FDCWD, path_);
		struct stat status {};
		if (fstat(fd_.Get(), &status) != 0) {
			ThrowErrno("has no size");
		}
		size_ = static_cast<std::uint64_t>(status.st_size);
	} catch (const Error& error) {
		Fail(path_, error);
	}
}

std::string_view InputFile::Next() {
	constexpr std::uint64_t kBlock = std::uint64_t{128} << 10U;
	block_.resize(static_cast<std::size_t>(std::min(kBlock, size_ - position_)));
	try {
		if (!ReadFullyAt(fd_.Get(), block_.data(), block_.size(), position_)) {
			throw Error("became shorter while it was read");
		}
	} catch (const Error& error) {
		Fail(path_, error);
	}
	position_ += block_.size();
	return {block_.data(), block_.size()};
}

bool SameBytes(const std::string& left, const std::string& right) {
	InputFile one(left);
	InputFile other(right);
	if (one.Size() != other.Size()) {
		return false;
	}
	for (std::string_view part = one.Next(); !part.empty(); part = one.Next()) {
		if (part != other.Next()) {
			return false;
		}
	}
	return true;
}

void MakeServedDirectories(const std::string& directory) {
	const fs::path path(directory);
	if (path.empty() || fs::exists(path)) {
		return;
	}
	MakeServedDirectories(path.parent_path().string());
	constexpr mode_t kMode = 0755;
	if ((mkdir(path.c_str(), kMode) != 0 && errno != EEXIST) || chmod(path.c_str(), kMode) != 0) {
		Fail(directory, "created");
	}
}

ReplacingFile::ReplacingFile(std::string path) : path_(std::move(path)) {
	const fs::path target(path_);
	MakeServedDirectories(target.parent_path().string());
	const std::string temporary =
	    (target.parent_path() / (kTemporaryPrefix + target.filename().string() + ".part")).string();
	draft_ = CreateDraft(temporary, kServedMode);
	if (!draft_) {
		Fail(temporary, "created");
	}
	if (fchmod(draft_.Fd(), kServedMode) != 0) {
		Fail(temporary, "made readable");
	}
}

void ReplacingFile::Commit() {
	if (fsync(draft_.Fd()) != 0) {
		Fail(path_, "synced");
	}
	if (!draft_.TakePlace(path_)) {
		Fail(path_, "put in place");
	}
	const fs::path directory = fs::path(path_).parent_path();
	if (!SyncDirectory(directory)) {
		Fail(directory.string(), "synced");
	}
	// The entry of a directory made just now is durable only when its own parent is. Where this user may not read,
	// above the repository, somebody else made the entry.
	for (const fs::path& parent : {directory / "..", directory / ".." / ".."}) {
		if (!SyncDirectory(parent) && errno != EACCES) {
			Fail(parent.string(), "synced");
		}
	}
}

UniqueFd LockFile(const std::string& path, const std::function<void()>& waiting) {
	UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kServedMode));
	if (!fd) {
		throw PublishError(ErrnoText("The lock " + path + " cannot be opened", errno) + ".");
	}
	if (!LockExclusively(fd.Get(), waiting)) {
		throw PublishError(ErrnoText("The lock " + path + " cannot be taken", errno) + ".");
	}
	return fd;
}

std::vector<fs::path> PathsIn(const std::string& directory) {
	std::vector<fs::path> entries;
	std::error_code error;
	for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error)) {
		entries.push_back(entry->path());
	}
	if (error && error != std::errc::no_such_file_or_directory) {
		throw PublishError(directory + " cannot be read: " + error.message() + ".");
	}
	std::sort(entries.begin(), entries.end());
	return entries;
}

std::vector<std::string> Leftovers(const std::string& directory) {
	std::vector<std::string> paths;
	for (const fs::path& path : PathsIn(directory)) {
		if (StartsWith(path.filename().string(), kTemporaryPrefix)) {
			paths.push_back(path.string());
		}
	}
	return paths;
}

void RemoveLeftovers(const std::string& directory) {
	for (const std::string& path : Leftovers(directory)) {
		std::error_code error;
		fs::remove_all(path, error); // work directories hold trees
		if (error) {
			throw PublishError(
			    "What a killed publisher left in " + directory + " cannot be removed: " + error.message() + ".");
		}
	}
}

WorkDirectory::WorkDirectory(const std::string& repository) {
	// Absolute and without links, since it goes to other programs and is compared with what they see.
	std::string name = (fs::canonical(repository) / (std::string(kTemporaryPrefix) + "work-XXXXXX")).string();
	if (mkdtemp(name.data()) == nullptr) {
		throw PublishError(ErrnoText("No directory can be created in " + repository, errno) + ".");
	}
	path_ = name;
}

WorkDirectory::~WorkDirectory() {
	try {
		fs::remove_all(path_);
	} catch (const std::exception&) { // NOLINT(bugprone-empty-catch): the next publisher removes what is left
	}
}

std::string WorkDirectory::Make(const std::string& name) const {
	std::string path = *this / name;
	try {
		fs::create_directories(path);
	} catch (const fs::filesystem_error& error) {
		throw PublishError(
		    "No directory can be created: " + error.path1().string() + ": " + error.code().message() + ".");
	}
	return path;
}

} // namespace tarn::publisher
