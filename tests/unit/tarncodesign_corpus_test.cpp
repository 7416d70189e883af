// What the fuzz target of frames begins with, and what it has found worth keeping, is decompressed in every run.
#include "corpus.h"
#include "entry.h"

#include <gtest/gtest.h>

namespace tarn::test {

namespace {

TEST(FrameCorpus, BreaksNoPromise) {
	ExpectNoBrokenPromise(TARN_FRAME_CORPUS, LLVMFuzzerTestOneInput, 40);
}

} // namespace

} // namespace tarn::test
