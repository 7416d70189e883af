// What the fuzz target has found worth keeping is decoded in every run.
#include "temporary_directory.h"
#include "vcdiff_fuzz.h"

#include <gtest/gtest.h>

namespace tarn::decoder::test {

namespace {

TEST(VcdiffCorpus, BreaksNoPromise) {
	// The least that the hand-made part of the corpus has.
	constexpr unsigned kAtLeast = 30;
	unsigned count = 0;
	for (const auto& entry : std::filesystem::directory_iterator(TARN_VCDIFF_CORPUS)) {
		const std::string input = tarn::test::ReadFile(entry.path().string());
		const std::vector<std::uint8_t> bytes(input.begin(), input.end());
		// A broken promise ends the process, and its last words tell what it was.
		SCOPED_TRACE(entry.path());
		EXPECT_EQ(LLVMFuzzerTestOneInput(bytes.data(), bytes.size()), 0);
		++count;
	}
	EXPECT_GE(count, kAtLeast);
}

} // namespace

} // namespace tarn::decoder::test
