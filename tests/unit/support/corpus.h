/** @file The kept corpus of a fuzz target, fed to it in every run. */
#ifndef TESTS_UNIT_SUPPORT_CORPUS_H
#define TESTS_UNIT_SUPPORT_CORPUS_H

#include "temporary_directory.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace tarn::test {

/**
 * Feeds every file of a directory to a fuzz target. A broken promise ends the process, and its last words tell what it
 * was.
 *
 * @param at_least  the files that the hand-made part of the corpus has
 */
inline void ExpectNoBrokenPromise(
    const std::string& directory, int (*target)(const std::uint8_t* data, std::size_t size), unsigned at_least) {
	unsigned count = 0;
	for (const auto& entry : std::filesystem::directory_iterator(directory)) {
		const std::string input = ReadFile(entry.path().string());
		const std::vector<std::uint8_t> bytes(input.begin(), input.end());
		SCOPED_TRACE(entry.path());
		EXPECT_EQ(target(bytes.data(), bytes.size()), 0);
		++count;
	}
	EXPECT_GE(count, at_least);
}

} // namespace tarn::test

#endif
