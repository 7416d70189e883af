/** @file Writing extracted members, below one directory and nowhere else. */
#ifndef ARCHIVE_BENEATH_WRITER_H
#define ARCHIVE_BENEATH_WRITER_H

#include "archive/member_path.h"
#include "base/unique_fd.h"

#include <string>

namespace tarn::archive {

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
	int Parent(const MemberPath& path, Missing missing);
	void RemoveExisting(int parent, const MemberPath& path);

	int root_;
	// The members of one directory follow each other, so the last parent is nearly always the next one.
	UniqueFd parent_;
	MemberPath parent_path_;
};

} // namespace tarn::archive

#endif
