/** @file Reading and writing files through descriptors. */
#ifndef BASE_FILE_IO_H
#define BASE_FILE_IO_H

#include "base/unique_fd.h"

#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>

namespace tarn {

/** Calls until the call isn't interrupted by a signal. */
template<typename Call>
auto RetryOnInterrupt(Call call) {
	auto result = call();
	while (result == -1 && errno == EINTR) {
		result = call();
	}
	return result;
}

/** Writes all of the buffer at the descriptor's position; false with errno set when that fails. */
[[nodiscard]] bool WriteAll(int fd, const void* buffer, std::size_t size);

/** Reads from an offset until the buffer is full or the file ends; the bytes read, or -1 with errno set. */
[[nodiscard]] ssize_t ReadAllAt(int fd, void* buffer, std::size_t size, std::uint64_t offset);

/**
 * Opens a regular file for reading, links not followed.
 *
 * @param directory  descriptor that a relative path starts from, or AT_FDCWD
 * @throws Error when it cannot be opened or is no regular file
 */
[[nodiscard]] UniqueFd OpenRegularFile(int directory, const std::string& path);

/** ReadAllAt() for a full buffer: false when the file ends before, Error when it cannot be read. */
[[nodiscard]] bool ReadFullyAt(int fd, void* buffer, std::size_t size, std::uint64_t offset);

/** WriteAll() that throws Error naming the path. */
void WriteFully(int fd, const void* buffer, std::size_t size, const std::string& path);

/** The whole of a small open file; throws Error when it is larger than the limit. */
[[nodiscard]] std::string ReadSmallFile(int fd, std::size_t limit, const std::string& path);

} // namespace tarn

#endif
