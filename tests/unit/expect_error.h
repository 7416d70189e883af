/** @file What a failing operation throws. */
#ifndef TESTS_UNIT_EXPECT_ERROR_H
#define TESTS_UNIT_EXPECT_ERROR_H

#include "dataupdate/update_error.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace tarn::test {

/** The UpdateError of an operation; none counts as a failure of the test. */
inline dataupdate::UpdateError ErrorOf(const std::function<void()>& operation) {
	try {
		operation();
	} catch (const dataupdate::UpdateError& error) {
		return error;
	}
	ADD_FAILURE() << "nothing was thrown";
	return {"nothing was thrown"};
}

inline std::string MessageOf(const std::function<void()>& operation) {
	return ErrorOf(operation).what();
}

} // namespace tarn::test

#endif
