/** @file What a fuzz target requires of the code that it tries. */
#ifndef TESTS_FUZZ_PROMISE_H
#define TESTS_FUZZ_PROMISE_H

#include <cstdlib>
#include <iostream>
#include <string>

namespace tarn::test {

/** Ends the process, so that a fuzz engine keeps the input, unless a promise was kept. */
inline void Require(bool promise, const std::string& broken) {
	if (!promise) {
		std::cerr << "A promise is broken: " << broken << '\n';
		std::abort();
	}
}

} // namespace tarn::test

#endif
