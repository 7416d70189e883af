/** @file A fuzz engine's input as a file. */
#ifndef TESTS_FUZZ_IN_MEMORY_H
#define TESTS_FUZZ_IN_MEMORY_H

#include "base/file_io.h"
#include "base/unique_fd.h"
#include "promise.h"

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>

namespace tarn::test {

/** A file that lies in memory only. */
inline UniqueFd InMemory(const std::uint8_t* data, std::size_t size) {
	UniqueFd fd(memfd_create("input", MFD_CLOEXEC));
	Require(fd && WriteAll(fd.Get(), data, size), "an input can be kept");
	return fd;
}

} // namespace tarn::test

#endif
