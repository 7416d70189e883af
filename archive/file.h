/** @file An open signed archive, and the check of its signature and content. */
#ifndef ARCHIVE_FILE_H
#define ARCHIVE_FILE_H

#include "archive/head.h"
#include "archive/keys.h"
#include "base/error.h"
#include "base/unique_fd.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::archive {

/** No key that was given has signed. */
class NotTrusted : public Error {
public:
	using Error::Error;
};

/**
 * One open archive. Its head part (head, metadata, table of frames, signature) is copied into memory once, when it is
 * opened; what is checked later and what is believed later are the same bytes, whatever happens to the file.
 */
class ArchiveFile {
public:
	/** Opens and reads the head part; nothing of it is to be believed before Check(). Throws Error. */
	explicit ArchiveFile(const std::string& path);

	/**
	 * Checks everything: signature by one of the keys, key type, every frame of the payload.
	 *
	 * @return the index of the key that signed
	 * @throws Error
	 */
	std::size_t Check(const std::vector<TrustedKey>& keys, std::uint32_t key_type) const;

	/**
	 * Reads the packed bytes of a frame and compares them with the table, so that only bytes described by the table
	 * are ever handed out. May be called by several threads at once.
	 *
	 * @param buffer  gets the bytes; its memory is used again
	 * @throws Error when the file no longer holds these bytes
	 */
	void ReadFrame(std::size_t index, std::string& buffer) const;

	const ArchiveHead& Head() const { return head_; }
	const std::vector<Frame>& Frames() const { return frames_; }
	std::string_view Metadata() const { return SignedPart().substr(kHeadSize, head_.metadata_size); }

private:
	/** All frames, on all processors. */
	void CheckPayload() const;
	std::string_view SignedPart() const { return std::string_view(message_).substr(kSignatureDomain.size()); }

	UniqueFd fd_;
	ArchiveHead head_;
	std::string message_; // what is signed: the domain, then all that lies before the signature
	Signature signature_{};
	std::vector<Frame> frames_;
	std::vector<std::uint64_t> offsets_; // of the frames in the file
};

} // namespace tarn::archive

#endif
