/** @file A file as a stream that tells the truth about what is available. */
#ifndef DATAUPDATE_INTERNAL_DIGEST_STREAM_H
#define DATAUPDATE_INTERNAL_DIGEST_STREAM_H

#include "base/unique_fd.h"
#include "dataupdate/internal/file_digest.h"

#include <atomic>
#include <istream>
#include <streambuf>
#include <string>
#include <vector>

namespace tarn::dataupdate {

/**
 * Reads a regular file in large blocks. The library's own file buffer asks the kernel for the bytes available in a
 * 32-bit number, which is 0 with a multiple of 4 GiB left; this one reads ahead and reports what it holds.
 */
class DigestBuffer : public std::streambuf {
public:
	/** @param is_unwanted  when this becomes true, the next block is a read error */
	explicit DigestBuffer(const std::atomic<bool>* is_unwanted) : is_unwanted_(is_unwanted) {}
	/** Opens for reading and writing; false when that fails or the path is no regular file. */
	[[nodiscard]] bool Open(const std::string& path);

protected:
	/** Bytes read ahead, -1 at the end; throws on a read error, which the stream turns into its bad bit. */
	std::streamsize showmanyc() override;
	int_type underflow() override;

private:
	const std::atomic<bool>* is_unwanted_;
	UniqueFd fd_;
	std::vector<char> block_;
};

/** An installed file, opened for reading and writing; in a failed state when it cannot be opened so. */
class DigestStream : public std::istream {
public:
	/** @param is_unwanted  ends the reading, as an error, when another thread sets it */
	explicit DigestStream(const std::string& path, const std::atomic<bool>* is_unwanted = nullptr);

private:
	DigestBuffer buffer_;
};

} // namespace tarn::dataupdate

#endif
