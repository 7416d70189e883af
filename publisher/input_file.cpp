#include "publisher/input_file.h"

#include "base/error.h"
#include "base/file_io.h"
#include "publisher/publish_error.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>

namespace tarn::publisher {

namespace {

[[noreturn]] void Fail(const std::string& path, const Error& error) {
	throw PublishError(path + " cannot be read: it " + error.what() + ".");
}

} // namespace

InputFile::InputFile(std::string path) : path_(std::move(path)) {
	try {
		fd_ = OpenRegularFile(AT_FDCWD, path_);
		struct stat status {};
		if (fstat(fd_.Get(), &status) != 0) {
			ThrowErrno("has no size");
		}
		size_ = static_cast<std::uint64_t>(status.st_size);
	} catch (const Error& error) {
		Fail(path_, error);
	}
}

std::string_view InputFile::Next() {
	constexpr std::uint64_t kBlock = std::uint64_t{128} << 10U;
	block_.resize(static_cast<std::size_t>(std::min(kBlock, size_ - position_)));
	try {
		if (!ReadFullyAt(fd_.Get(), block_.data(), block_.size(), position_)) {
			throw Error("became shorter while it was read");
		}
	} catch (const Error& error) {
		Fail(path_, error);
	}
	position_ += block_.size();
	return {block_.data(), block_.size()};
}

bool SameBytes(const std::string& left, const std::string& right) {
	InputFile one(left);
	InputFile other(right);
	if (one.Size() != other.Size()) {
		return false;
	}
	for (std::string_view part = one.Next(); !part.empty(); part = one.Next()) {
		if (part != other.Next()) {
			return false;
		}
	}
	return true;
}

} // namespace tarn::publisher
