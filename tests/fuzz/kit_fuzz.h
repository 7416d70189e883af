/** @file The entry that a fuzz engine calls, and that a unit test feeds the kept corpus. */
#ifndef TESTS_FUZZ_KIT_FUZZ_H
#define TESTS_FUZZ_KIT_FUZZ_H

#include <cstddef>
#include <cstdint>

/** Reads an input as a kit, with all of its parts. Aborts the process when the reader breaks a promise. */
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

#endif
