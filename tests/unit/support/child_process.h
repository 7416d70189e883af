/** @file Programs that tests run. */
#ifndef TESTS_UNIT_SUPPORT_CHILD_PROCESS_H
#define TESTS_UNIT_SUPPORT_CHILD_PROCESS_H

#include <string>
#include <vector>

namespace tarn::test {

struct ChildResult {
	int exit_code = -1; ///< -1 when it was ended by a signal
	std::string out;
	std::string err;
};

/** Runs a program, found in the path, to its end, with its output kept in two files of the directory. */
ChildResult RunChild(const std::vector<std::string>& command, const std::string& directory);

} // namespace tarn::test

#endif
