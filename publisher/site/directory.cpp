#include "publisher/site/directory.h"

#include "base/file_io.h"
#include "base/text.h"
#include "publisher/common/files.h"
#include "publisher/common/publish_error.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace tarn::publisher::site {

namespace {

namespace fs = std::filesystem;

constexpr const char* kMark = ".tarndbudpub.site"; // tells what this class has made from everything else
constexpr mode_t kFileMode = 0644;
constexpr mode_t kDirectoryMode = 0755; // a web server reads it, whatever the umask

[[noreturn]] void Fail(const std::string& path, const std::string& what) {
	throw PublishError(ErrnoText(path + " could not be " + what, errno) + ".");
}

/** Throws PublishError for a place that holds what somebody may need. */
void RequireReplaceable(const fs::path& place) {
	if (!fs::exists(fs::symlink_status(place))) {
		return;
	}
	if (!fs::is_directory(place)) {
		throw PublishError(place.string() + " is no directory.");
	}
	constexpr std::array<std::string_view, 8> kOwn = {
	    kMark, "channels.html", "databases", "feed.xml", "index.html", "keys", "style.css", "trust.html"};
	const bool is_site = fs::exists(place / kMark);
	for (const fs::path& path : PathsIn(place.string())) {
		const std::string name = path.filename().string();
		if (!is_site || std::find(kOwn.begin(), kOwn.end(), name) == kOwn.end()) {
			throw PublishError(path.string() +
			                   " was not made by \"tarndbudpub site\" and would be lost: move it away, or "
			                   "choose another directory.");
		}
	}
}

/** How the hidden directories of a place are named. */
std::string DraftPrefix(const fs::path& place) {
	return "." + place.filename().string() + ".tarndbudpub-";
}

/** Locks a directory unless somebody has it locked, or it is gone; waits for nobody. */
UniqueFd TryLock(const std::string& directory) {
	UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
	const bool is_locked = fd && flock(fd.Get(), LOCK_EX | LOCK_NB) == 0 && fs::exists(directory);
	return is_locked ? std::move(fd) : UniqueFd();
}

} // namespace

std::string RealPath(const std::string& name) {
	const fs::path path = fs::weakly_canonical(fs::absolute(name));
	return (path.has_filename() ? path : path.parent_path()).string(); // without "/" at its end
}

WholeDirectory::WholeDirectory(const std::string& place) : place_(RealPath(place)) {
	RequireReplaceable(place_);
	MakeServedDirectories(fs::path(place_).parent_path().string());
	RemoveLeftovers();
	MakeDraft();
	Write(kMark, "");
	files_ = 0;
}

WholeDirectory::~WholeDirectory() {
	std::error_code ignored; // the next run removes what is left
	fs::remove_all(draft_, ignored);
}

void WholeDirectory::RemoveLeftovers() const {
	for (const fs::path& path : PathsIn(fs::path(place_).parent_path().string())) {
		if (!StartsWith(path.filename().string(), DraftPrefix(place_))) {
			continue;
		}
		if (const UniqueFd lock = TryLock(path.string())) {
			std::error_code error;
			fs::remove_all(path, error);
			if (error) {
				throw PublishError(path.string() + " could not be removed: " + error.message() + ".");
			}
		}
	}
}

void WholeDirectory::MakeDraft() {
	const fs::path pattern = fs::path(place_).parent_path() / (DraftPrefix(place_) + "XXXXXX");
	while (!lock_) { // Another run may take the new directory for a leftover before it is locked.
		std::string name = pattern.string();
		if (mkdtemp(name.data()) == nullptr) {
			Fail(name, "created");
		}
		draft_ = name;
		lock_ = TryLock(draft_);
	}
}

void WholeDirectory::Write(const std::string& name, std::string_view content) {
	const std::string path = draft_ + "/" + name;
	MakeServedDirectories(fs::path(path).parent_path().string());
	const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kFileMode));
	if (!fd || fchmod(fd.Get(), kFileMode) != 0 || !WriteAll(fd.Get(), content.data(), content.size())) {
		Fail(path, "written");
	}
	++files_;
	bytes_ += content.size();
}

void WholeDirectory::Exchange() {
	const bool is_new = !fs::exists(place_);
	const unsigned int flags = is_new ? RENAME_NOREPLACE : RENAME_EXCHANGE;
	if (renameat2(AT_FDCWD, draft_.c_str(), AT_FDCWD, place_.c_str(), flags) != 0) {
		Fail(place_, "replaced in one step");
	}
}

void WholeDirectory::Commit() {
	if (chmod(draft_.c_str(), kDirectoryMode) != 0) {
		Fail(draft_, "made readable");
	}
	if (syncfs(lock_.Get()) != 0) { // one call for many files
		Fail(draft_, "synced");
	}
	RequireReplaceable(place_); // once more, because much time may have passed
	Exchange();
	const std::string parent = fs::path(place_).parent_path().string();
	if (!SyncDirectory(parent)) {
		Fail(parent, "synced");
	}
	std::error_code ignored; // the new site is there; the next run removes what is left of the old one
	fs::remove_all(draft_, ignored);
}

} // namespace tarn::publisher::site
