#include "dataupdate/internal/directory_entries.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace tarn::dataupdate {

namespace {

/** Some file systems leave the type to be asked for. */
bool IsDirectoryEntry(int directory, const dirent& entry) {
	struct stat status {};
	return entry.d_type == DT_DIR ||
	       (entry.d_type == DT_UNKNOWN && fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
	           S_ISDIR(status.st_mode));
}

bool IsDotEntry(const char* name) {
	return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

} // namespace

DirectoryEntries::DirectoryEntries(DIR* directory) {
	while (true) {
		errno = 0;
		const dirent* entry = readdir(directory);
		if (entry == nullptr) {
			error_ = errno;
			return;
		}
		if (!IsDotEntry(entry->d_name)) {
			marked_names_ += IsDirectoryEntry(dirfd(directory), *entry) ? kDirectoryMark : kOtherMark;
			marked_names_.append(entry->d_name, std::strlen(entry->d_name) + 1);
		}
	}
}

} // namespace tarn::dataupdate
