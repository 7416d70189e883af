/** @file Files for readers that want a path. */
#ifndef TESTS_FUZZ_SCRATCH_H
#define TESTS_FUZZ_SCRATCH_H

#include "promise.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <system_error>

namespace tarn::test {

/** A directory of the process's own, removed when it ends by itself. */
class Scratch {
public:
	Scratch() {
		std::string name = (std::filesystem::temp_directory_path() / "tarn-fuzz-XXXXXX").string();
		Require(mkdtemp(name.data()) != nullptr, "a directory can be made");
		path_ = std::filesystem::canonical(name);
	}
	~Scratch() {
		std::error_code ignored;
		std::filesystem::remove_all(path_, ignored);
	}
	Scratch(const Scratch&) = delete;
	Scratch& operator=(const Scratch&) = delete;

	std::string operator/(const std::string& name) const { return (path_ / name).string(); }

private:
	std::filesystem::path path_;
};

inline std::string_view Text(const std::uint8_t* data, std::size_t size) {
	return {reinterpret_cast<const char*>(data), size};
}

/** Replaces a file's content. */
inline void Put(const std::string& path, std::string_view content) {
	std::ofstream file(path, std::ios::binary | std::ios::trunc);
	file.write(content.data(), static_cast<std::streamsize>(content.size()));
	file.close();
	Require(!file.fail(), path + " can be written");
}

inline std::string Content(const std::string& path) {
	std::ifstream file(path, std::ios::binary);
	return {std::istreambuf_iterator<char>(file), {}};
}

/** Whether a text may be put on a terminal or in a log line. */
inline bool IsOneLine(std::string_view text) {
	constexpr unsigned char kSpace = 0x20;
	constexpr unsigned char kDelete = 0x7f;
	for (const char character : text) {
		const auto byte = static_cast<unsigned char>(character);
		if (byte < kSpace || byte == kDelete) {
			return false;
		}
	}
	return true;
}

} // namespace tarn::test

#endif
