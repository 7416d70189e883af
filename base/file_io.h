#ifndef BASE_FILE_IO_H
#define BASE_FILE_IO_H

#include "base/unique_fd.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace tarn {

/**
 * Opens a regular file for reading, links not followed.
 *
 * @param directory  descriptor that a relative path starts from, or AT_FDCWD
 * @throws Error when it cannot be opened or is no regular file
 */
UniqueFd OpenRegularFile(int directory, const std::string& path);

/** Fills the buffer from an offset; false when the file ends before. */
bool ReadFullyAt(int fd, void* buffer, std::size_t size, std::uint64_t offset);

/** Writes all of the buffer at the descriptor's position; throws Error naming the path. */
void WriteFully(int fd, const void* buffer, std::size_t size, const std::string& path);

/** The whole of a small open file; throws Error when it is larger than the limit. */
std::string ReadSmallFile(int fd, std::size_t limit, const std::string& path);

} // namespace tarn

#endif
