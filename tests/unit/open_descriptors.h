/** @file What this process has open. */
#ifndef TESTS_UNIT_OPEN_DESCRIPTORS_H
#define TESTS_UNIT_OPEN_DESCRIPTORS_H

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace tarn::test {

/** This process's descriptors of a file. */
inline std::vector<int> OpenDescriptors(const std::string& path) {
	std::vector<int> descriptors;
	for (const std::filesystem::directory_entry& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
		std::error_code ignored;
		if (std::filesystem::read_symlink(entry.path(), ignored) == path) {
			descriptors.push_back(std::stoi(entry.path().filename()));
		}
	}
	return descriptors;
}

} // namespace tarn::test

#endif
