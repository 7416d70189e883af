/** @file Files that are read, and the file that a patch makes. */
#ifndef DECODER_FILES_H
#define DECODER_FILES_H

#include "base/file_io.h"
#include "base/unique_fd.h"
#include "decoder/bytes.h"

#include <sys/stat.h>

#include <string>

namespace tarn::decoder {

/** A regular file that is only read, with the size that it has when it is opened. */
class InputFile : public ReadableBytes {
public:
	/** Throws DecodeError when it is no regular file or cannot be opened; never waits for somebody's writing. */
	explicit InputFile(std::string path);

	const std::string& Name() const override { return path_; }
	std::uint64_t Size() const override { return static_cast<std::uint64_t>(status_.st_size); }
	void ReadAt(std::uint64_t offset, Byte* to, std::size_t length) const override;

	/** Whether a path leads to this very file, by whatever name. */
	bool IsAt(const std::string& path) const;

private:
	std::string path_;
	UniqueFd fd_;
	struct stat status_ = {};
};

/**
 * A file that appears under its name whole or not at all. Until Commit() it has no name where the file system allows
 * that, so that a killed process leaves nothing behind; elsewhere a name of its own beside the other one. Without
 * Commit() nothing stays, and a file that had the name before is untouched.
 */
class OutputFile : public GrowingBytes {
public:
	/** Throws DecodeError when the path is taken by something else than a regular file, or cannot be written. */
	explicit OutputFile(std::string path);
	const std::string& Name() const override { return path_; }
	std::uint64_t Size() const override { return size_; }
	void ReadAt(std::uint64_t offset, Byte* to, std::size_t length) const override;
	void Append(const Byte* from, std::size_t length) override;

	/** Puts the file in place of whatever has its name. Does not sync it. Throws DecodeError. */
	void Commit();

private:
	void CreateNamed();
	/** Gives the nameless file a name; false when that is taken. */
	[[nodiscard]] bool Link(const std::string& name) const;
	void LinkTemporary();
	std::string DrawTemporaryName() const;

	std::string path_;
	Draft draft_;
	std::uint64_t size_ = 0;
};

} // namespace tarn::decoder

#endif
