/** @file The entry that a fuzz engine calls, and that a unit test feeds the kept corpus. */
#ifndef TESTS_FUZZ_FRAME_FUZZ_H
#define TESTS_FUZZ_FRAME_FUZZ_H

#include <cstddef>
#include <cstdint>

/**
 * Decompresses an input: three bytes with the unpacked size (little endian), a byte whose remainder is the codec's
 * number, and the packed bytes. Aborts the process when the decompressor breaks a promise; an Error is fine.
 */
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

#endif
