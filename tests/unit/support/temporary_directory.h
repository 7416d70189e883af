/** @file A directory of a test's own. */
#ifndef TESTS_UNIT_SUPPORT_TEMPORARY_DIRECTORY_H
#define TESTS_UNIT_SUPPORT_TEMPORARY_DIRECTORY_H

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace tarn::test {

/** Made empty, removed with all it holds. */
class TemporaryDirectory {
public:
	TemporaryDirectory() {
		std::string name = (std::filesystem::temp_directory_path() / "tarn-test-XXXXXX").string();
		if (mkdtemp(name.data()) == nullptr) {
			throw std::system_error(errno, std::generic_category(), name);
		}
		path_ = std::filesystem::canonical(name);
	}
	~TemporaryDirectory() {
		std::error_code error;
		std::filesystem::remove_all(path_, error);
		if (error) {
			ADD_FAILURE() << "cannot remove " << path_ << ": " << error.message();
		}
	}
	TemporaryDirectory(const TemporaryDirectory&) = delete;
	TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
	TemporaryDirectory(TemporaryDirectory&&) = delete;
	TemporaryDirectory& operator=(TemporaryDirectory&&) = delete;

	const std::filesystem::path& Path() const { return path_; }

	/** The path of a name in the directory, as text. */
	std::string operator/(const std::string& name) const { return (path_ / name).string(); }

private:
	std::filesystem::path path_;
};

/** Writes a file, with missing parents. */
inline void WriteFile(const std::string& path, const std::string& content) {
	std::filesystem::create_directories(std::filesystem::path(path).parent_path());
	std::ofstream file(path, std::ios::binary);
	file << content;
	file.close();
	if (!file) {
		throw std::runtime_error("cannot write " + path);
	}
}

/** The names of all files and directories below a directory, relative to it, in no order. */
inline std::vector<std::string> EntriesBelow(const std::string& directory) {
	std::vector<std::string> entries;
	for (const std::filesystem::directory_entry& entry : std::filesystem::recursive_directory_iterator(directory)) {
		entries.push_back(std::filesystem::relative(entry.path(), directory));
	}
	return entries;
}

/** Reads a whole file; throws where a read fails. */
inline std::string ReadFile(const std::string& path) {
	std::ifstream file(path, std::ios::binary);
	if (!file) {
		throw std::runtime_error("cannot read " + path);
	}
	return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace tarn::test

#endif
