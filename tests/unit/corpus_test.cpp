// What a fuzz target begins with, and what it has found worth keeping, is tried in every run. Built for each target.
#include "corpus.h"
#include "entry.h"
#include "private_root.h"

namespace tarn::test {

namespace {

class TARN_CORPUS_SUITE : public FixedPathsTest {};

TEST_F(TARN_CORPUS_SUITE, BreaksNoPromise) {
	ExpectNoBrokenPromise(TARN_CORPUS, LLVMFuzzerTestOneInput, TARN_CORPUS_SIZE);
}

} // namespace

} // namespace tarn::test
