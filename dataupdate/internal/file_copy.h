/** @file Putting regular files into place without waiting for the disk, and taking them away. */
#ifndef DATAUPDATE_INTERNAL_FILE_COPY_H
#define DATAUPDATE_INTERNAL_FILE_COPY_H

#include <future>
#include <string>

namespace tarn::dataupdate {

/**
 * Copies a regular file's content and permission bits to a path that must not exist, sharing extents where the file
 * system can. Nothing is synced: a sync for every file costs twenty times the copy, so callers sync the file system
 * once (SyncFileSystem). Throws boost::filesystem::filesystem_error and removes a half-made copy.
 */
void CopyRegularFile(const std::string& src, const std::string& dst);

/** Gives a regular file (or the one that a link leads to) a second name, or throws as CopyRegularFile(). */
void LinkRegularFile(const std::string& src, const std::string& dst);

/**
 * Gives a regular file (or the one that a link leads to) a second name at a path that must not exist, on another file
 * system a copy. For files that no process will write to under their first name: takes no space, no copying, and leaves
 * what is in memory there. Throws as CopyRegularFile().
 */
void InstallRegularFile(const std::string& src, const std::string& dst);

/**
 * Removes one file or link, never a directory, not even an empty one; a missing file is no error. Throws
 * boost::filesystem::filesystem_error.
 */
void RemoveFile(const std::string& path);

/** SyncFileSystem() after a success; where there is no install directory, there is nothing to bring to the disk. */
void SyncInstalled(const std::string& install_prefix);

/**
 * Does the same beside the caller, where a thread can be had, else in get(), which throws what it throws. For the time
 * in which digests are taken: these need the processors, and this needs the disk.
 */
[[nodiscard]] std::future<void> BeginToSyncInstalled(const std::string& install_prefix);

} // namespace tarn::dataupdate

#endif
