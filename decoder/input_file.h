/** @file Files that are only read. */
#ifndef DECODER_INPUT_FILE_H
#define DECODER_INPUT_FILE_H

#include "base/unique_fd.h"
#include "decoder/bytes.h"

#include <sys/types.h>

#include <string>

namespace tarn::decoder {

/** Reads exactly these bytes of an open file. Throws DecodeError, also when the file ends before. */
void ReadFileAt(int fd, const std::string& name, std::uint64_t offset, Byte* to, std::size_t length);

/** Throws a DecodeError that says what could not be done with a file, and the present errno's text. */
[[noreturn]] void FailWithErrno(const std::string& name, const std::string& what);

/** A regular file that is only read, with the size that it has when it is opened. */
class InputFile : public ReadableBytes {
public:
	/** Throws DecodeError when it is no regular file or cannot be opened; never waits for somebody's writing. */
	explicit InputFile(std::string path);

	const std::string& Name() const override { return path_; }
	std::uint64_t Size() const override { return size_; }
	void ReadAt(std::uint64_t offset, Byte* to, std::size_t length) const override {
		ReadFileAt(fd_.Get(), path_, offset, to, length);
	}

	/** Whether a path leads to this very file, by whatever name. */
	bool IsAt(const std::string& path) const;

private:
	std::string path_;
	UniqueFd fd_;
	std::uint64_t size_ = 0;
	dev_t device_ = 0;
	ino_t inode_ = 0;
};

} // namespace tarn::decoder

#endif
