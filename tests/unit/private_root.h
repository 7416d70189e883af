/** @file The library's fixed absolute paths, for tests, without touching the machine's own. */
#ifndef TESTS_UNIT_PRIVATE_ROOT_H
#define TESTS_UNIT_PRIVATE_ROOT_H

#include <gtest/gtest.h>

#include <string>

namespace tarn::test {

/**
 * Gives the process a root of its own that shows the machine's files except those at the library's fixed paths, which
 * are missing there and can be made and removed at will. Where nothing can be mounted, the machine's own paths serve
 * if the environment's TARN_SANDBOX is "none", one process at a time.
 *
 * @return empty, or why tests of fixed paths cannot run
 */
std::string EnterPrivateRoot();

/** Why tests of fixed paths cannot run in this process; empty when they can. */
std::string PrivateRootProblem();

/** The base of tests that use fixed paths: they begin and end with none of them there, or are left out with the reason.
 */
class FixedPathsTest : public testing::Test {
protected:
	void SetUp() override;
	void TearDown() override;
};

} // namespace tarn::test

#endif
