#include "archive/members.h"

#include "base/error.h"
#include "base/text.h"

#include <climits>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

namespace tarn::archive {

namespace {

void RequireRelative(std::string_view text) {
	Require(!text.empty(), "is empty");
	Require(text.front() != '/', "is absolute");
	Require(text.size() < PATH_MAX, "is too long");
	Require(text.find('\0') == std::string_view::npos, "holds a NUL");
}

constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kFileMode = 0644;
constexpr mode_t kExecutableMode = 0755;
constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

UniqueFd OpenDirectoryAt(int parent, const std::string& name) {
	UniqueFd fd(openat(parent, name.c_str(), kOpenDirectory));
	if (!fd && errno != ENOENT) {
		if (errno == ENOTDIR || errno == ELOOP) {
			throw Error("passes through \"" + Printable(name) + "\", which is no directory");
		}
		ThrowErrno("cannot open the directory \"" + Printable(name) + "\"");
	}
	return fd;
}

UniqueFd MakeDirectoryAt(int parent, const std::string& name) {
	if (mkdirat(parent, name.c_str(), kDirectoryMode) != 0) {
		ThrowErrno("cannot create the directory \"" + Printable(name) + "\"");
	}
	UniqueFd fd = OpenDirectoryAt(parent, name);
	if (!fd || fchmod(fd.Get(), kDirectoryMode) != 0) {
		ThrowErrno("cannot set the mode of the directory \"" + Printable(name) + "\"");
	}
	return fd;
}

bool SameParent(const MemberPath& path, const MemberPath& parent) {
	return path.size() == parent.size() + 1 && std::equal(parent.begin(), parent.end(), path.begin());
}

} // namespace

MemberPath ParseMemberName(std::string_view name) {
	RequireRelative(name);
	MemberPath path = PathSteps(name);
	Require(std::find(path.begin(), path.end(), "..") == path.end(), "leads out by \"..\"");
	if (path.size() > kMaxDepth) {
		throw Error("has " + std::to_string(path.size()) + " components; the limit is " + std::to_string(kMaxDepth));
	}
	return path;
}

std::string Joined(const MemberPath& path) {
	return JoinSteps(path);
}

void CheckLinkTarget(const MemberPath& link, std::string_view target) {
	RequireRelative(target);
	std::size_t ups = 0;
	bool leading = true;
	for (const std::string& component : PathSteps(target)) {
		if (component != "..") {
			leading = false;
		} else if (!leading || ++ups >= link.size()) {
			throw Error("leads out by \"..\"");
		}
	}
}

int BeneathWriter::Parent(const MemberPath& path, Missing missing) {
	Require(!path.empty(), "names the destination itself");
	if (path.size() == 1) {
		return root_;
	}
	if (parent_ && SameParent(path, parent_path_)) {
		return parent_.Get();
	}
	UniqueFd current;
	for (auto name = path.begin(); name + 1 != path.end(); ++name) {
		const int above = current ? current.Get() : root_;
		UniqueFd next = OpenDirectoryAt(above, *name);
		if (!next) {
			if (missing == Missing::kFail) {
				throw Error("needs the directory \"" + Printable(*name) + "\", which does not exist");
			}
			next = MakeDirectoryAt(above, *name);
		}
		current = std::move(next);
	}
	parent_ = std::move(current);
	parent_path_.assign(path.begin(), path.end() - 1);
	return parent_.Get();
}

void BeneathWriter::RemoveExisting(int parent, const MemberPath& path) {
	const std::string& name = path.back();
	if (unlinkat(parent, name.c_str(), 0) != 0 && errno != ENOENT) {
		const bool directory = errno == EISDIR || errno == EPERM;
		RequireCall(directory && unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0, "cannot replace what is there");
	}
}

void BeneathWriter::MakeDirectory(const MemberPath& path) {
	if (path.empty()) {
		return;
	}
	const int parent = Parent(path, Missing::kCreate);
	struct stat status {};
	if (fstatat(parent, path.back().c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
		if (S_ISDIR(status.st_mode)) {
			return;
		}
		RemoveExisting(parent, path);
	}
	MakeDirectoryAt(parent, path.back());
}

UniqueFd BeneathWriter::CreateFile(const MemberPath& path, bool executable) {
	const int parent = Parent(path, Missing::kCreate);
	constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
	const mode_t mode = executable ? kExecutableMode : kFileMode;
	UniqueFd fd(openat(parent, path.back().c_str(), kFlags, mode));
	if (!fd && errno == EEXIST) {
		RemoveExisting(parent, path);
		fd = UniqueFd(openat(parent, path.back().c_str(), kFlags, mode));
	}
	RequireCall(static_cast<bool>(fd), "cannot create the file");
	RequireCall(fchmod(fd.Get(), mode) == 0, "cannot set the file's mode");
	return fd;
}

void BeneathWriter::MakeSymlink(const MemberPath& path, const std::string& target) {
	const int parent = Parent(path, Missing::kCreate);
	RemoveExisting(parent, path);
	RequireCall(symlinkat(target.c_str(), parent, path.back().c_str()) == 0, "cannot create the symbolic link");
}

void BeneathWriter::MakeHardLink(const MemberPath& path, const MemberPath& target) {
	Require(path != target, "is a hard link to itself");
	// Kept by a descriptor of its own, because looking up the link's parent moves the cached one on.
	const UniqueFd from(fcntl(Parent(target, Missing::kFail), F_DUPFD_CLOEXEC, 0));
	RequireCall(static_cast<bool>(from), "cannot keep the link's directory open");
	struct stat status {};
	const bool is_there = fstatat(from.Get(), target.back().c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
	RequireCall(is_there, "cannot find its hard link's target");
	Require(S_ISREG(status.st_mode), "is a hard link to something else than a regular file");
	const int to = Parent(path, Missing::kCreate);
	RemoveExisting(to, path);
	const bool is_linked = linkat(from.Get(), target.back().c_str(), to, path.back().c_str(), 0) == 0;
	RequireCall(is_linked, "cannot create the hard link");
}

} // namespace tarn::archive
