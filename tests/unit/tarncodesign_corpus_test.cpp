// What the fuzz target of frames begins with, and what it has found worth keeping, is decompressed in every run.
#include "frame_fuzz.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>

namespace tarn::test {

namespace {

TEST(FrameCorpus, BreaksNoPromise) {
	// The least that the hand-made part of the corpus has.
	constexpr unsigned kAtLeast = 40;
	unsigned count = 0;
	for (const auto& entry : std::filesystem::directory_iterator(TARN_FRAME_CORPUS)) {
		const std::string input = ReadFile(entry.path().string());
		const std::vector<std::uint8_t> bytes(input.begin(), input.end());
		// A broken promise ends the process, and its last words tell what it was.
		SCOPED_TRACE(entry.path());
		EXPECT_EQ(LLVMFuzzerTestOneInput(bytes.data(), bytes.size()), 0);
		++count;
	}
	EXPECT_GE(count, kAtLeast);
}

} // namespace

} // namespace tarn::test
