/** @file The entry that a fuzz engine calls, and that a unit test feeds the kept corpus. */
#ifndef TESTS_FUZZ_RECORD_FUZZ_H
#define TESTS_FUZZ_RECORD_FUZZ_H

#include <cstddef>
#include <cstdint>

/** Reads an input as a record of files. Aborts the process when the reader breaks a promise; a refusal is fine. */
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

#endif
