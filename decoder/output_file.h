/** @file The file that a patch makes. */
#ifndef DECODER_OUTPUT_FILE_H
#define DECODER_OUTPUT_FILE_H

#include "base/whole_file.h"
#include "decoder/bytes.h"

#include <string>

namespace tarn::decoder {

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
	bool Link(const std::string& name) const;
	void LinkTemporary();
	std::string DrawTemporaryName() const;

	std::string path_;
	Draft draft_;
	std::uint64_t size_ = 0;
};

} // namespace tarn::decoder

#endif
