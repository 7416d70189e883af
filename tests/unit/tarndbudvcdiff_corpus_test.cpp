// What the fuzz target has found worth keeping is decoded in every run.
#include "corpus.h"
#include "entry.h"

#include <gtest/gtest.h>

namespace tarn::decoder::test {

namespace {

TEST(VcdiffCorpus, BreaksNoPromise) {
	tarn::test::ExpectNoBrokenPromise(TARN_VCDIFF_CORPUS, LLVMFuzzerTestOneInput, 30);
}

} // namespace

} // namespace tarn::decoder::test
