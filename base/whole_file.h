/** @file Files that are never seen half written. */
#ifndef BASE_WHOLE_FILE_H
#define BASE_WHOLE_FILE_H

#include <string>

namespace tarn {

/**
 * Writes a file (mode 0644) beside its place, brings it to the disk and renames it, so that whoever opens the path
 * finds all of the old content or all of the new. Throws Error naming the path; nothing is then left beside it.
 * The name beside it begins with a dot and ends in ".tmp", for which collectors of files by suffix don't look.
 */
void WriteWholeFile(const std::string& path, const std::string& content);

} // namespace tarn

#endif
