/** @file The entry that a fuzz engine calls, and that a unit test feeds the kept corpus. */
#ifndef TESTS_FUZZ_ENTRY_H
#define TESTS_FUZZ_ENTRY_H

#include <cstddef>
#include <cstdint>

/**
 * Hands an input to what reads it; the beginning of each target's source says what its inputs are. Aborts the process
 * when the reader breaks a promise, and lets pass what the reader does not document to throw; a refusal is fine.
 */
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

#endif
