/** @file The entry that a fuzz engine calls, and that a unit test feeds the kept corpus. */
#ifndef TESTS_FUZZ_VCDIFF_FUZZ_H
#define TESTS_FUZZ_VCDIFF_FUZZ_H

#include <cstddef>
#include <cstdint>

/**
 * Decodes an input: two bytes that say (little endian) how many of the bytes after them are the source, the source, and
 * the patch. Aborts the process when the decoder breaks a promise; any error of the decoder's own is fine.
 */
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

#endif
