/** @file Reading a file from its beginning to its end. */
#ifndef PUBLISHER_INPUT_FILE_H
#define PUBLISHER_INPUT_FILE_H

#include "base/unique_fd.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::publisher {

/** A regular file with the size that it has when it is opened. Failures are PublishError, naming the file. */
class InputFile {
public:
	explicit InputFile(std::string path);

	std::uint64_t Size() const { return size_; }
	/** The next bytes, valid until the next call; empty at the end. */
	[[nodiscard]] std::string_view Next();

private:
	std::string path_;
	UniqueFd fd_;
	std::uint64_t size_ = 0;
	std::uint64_t position_ = 0;
	std::vector<char> block_;
};

/** Whether two files hold the same bytes; throws PublishError. */
[[nodiscard]] bool SameBytes(const std::string& left, const std::string& right);

} // namespace tarn::publisher

#endif
