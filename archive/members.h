/** @file Names of members and targets of links, and writing members below one directory and nowhere else. */
#ifndef ARCHIVE_MEMBERS_H
#define ARCHIVE_MEMBERS_H

#include "base/unique_fd.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::archive {

/**
 * A member's name in its components, none of which is empty, "." or "..". No components at all mean the destination
 * itself.
 */
using MemberPath = std::vector<std::string>;

/** Components that a name may have: programs that walk trees often hold a descriptor or a stack frame for each. */
constexpr std::size_t kMaxDepth = 128;

/** Throws Error for an empty, absolute or overlong name, for one with "..", and for more than kMaxDepth components. */
[[nodiscard]] MemberPath ParseMemberName(std::string_view name);

/** Components joined by "/". */
std::string Joined(const MemberPath& path);

/**
 * Checks that a symbolic link cannot lead out of the tree: a relative target, ".." only at its beginning and no more
 * often than the link lies deep. Since no link in the tree leads out, none can be used to make a longer way out. Throws
 * Error.
 */
void CheckLinkTarget(const MemberPath& link, std::string_view target);

/**
 * Creates files below one directory and nowhere else: every component of a name is opened from the directory before
 * it, and a symbolic link on the way is an error, whoever made it. What lies at a name is replaced, never written
 * into; a directory that is not empty is never replaced. Modes do not depend on the umask; the owner is whoever runs
 * this. Nothing is synced.
 */
class BeneathWriter {
public:
	/** @param root  descriptor of the directory; outlives the writer */
	explicit BeneathWriter(int root) : root_(root) {}

	void MakeDirectory(const MemberPath& path);
	/** A new empty file, open for writing. */
	[[nodiscard]] UniqueFd CreateFile(const MemberPath& path, bool executable);
	/** The target is written as it is given; CheckLinkTarget() judges it. */
	void MakeSymlink(const MemberPath& path, const std::string& target);
	/** A second name of a regular file below the directory. */
	void MakeHardLink(const MemberPath& path, const MemberPath& target);

private:
	enum class Missing { kCreate, kFail };

	/** Descriptor of the directory that holds the path's last component, valid until the next call. */
	[[nodiscard]] int Parent(const MemberPath& path, Missing missing);
	void RemoveExisting(int parent, const MemberPath& path);

	int root_;
	// The members of one directory follow each other, so the last parent is nearly always the next one.
	UniqueFd parent_;
	MemberPath parent_path_;
};

} // namespace tarn::archive

#endif
