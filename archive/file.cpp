#include "archive/file.h"

#include "base/error.h"
#include "base/file_io.h"
#include "base/parallel.h"
#include "base/sha2.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>

namespace tarn::archive {

namespace {

std::uint64_t SizeOf(int fd) {
	struct stat status {};
	if (fstat(fd, &status) != 0) {
		ThrowErrno("cannot get status");
	}
	return static_cast<std::uint64_t>(status.st_size);
}

ArchiveHead ReadHead(int fd) {
	std::string bytes(kHeadSize, '\0');
	if (!ReadFullyAt(fd, bytes.data(), bytes.size(), 0)) {
		throw Error("is too short for a signed archive");
	}
	return DecodeHead(bytes);
}

} // namespace

ArchiveFile::ArchiveFile(const std::string& path) : fd_(OpenRegularFile(AT_FDCWD, path)), head_(ReadHead(fd_.Get())) {
	// Compared before anything is allocated, so that a small file cannot ask for much memory.
	const std::uint64_t size = SizeOf(fd_.Get());
	if (size != head_.FileSize()) {
		throw Error("is damaged: it has " + std::to_string(size) + " bytes where its head says " +
		            std::to_string(head_.FileSize()));
	}
	message_ = kSignatureDomain;
	message_.resize(kSignatureDomain.size() + head_.SignatureOffset());
	if (!ReadFullyAt(fd_.Get(), &message_[kSignatureDomain.size()], head_.SignatureOffset(), 0) ||
	    !ReadFullyAt(fd_.Get(), signature_.data(), signature_.size(), head_.SignatureOffset())) {
		throw Error("became shorter while it was read");
	}
	// The head was read twice; only these bytes are the ones whose signature is checked.
	const ArchiveHead again = DecodeHead(SignedPart().substr(0, kHeadSize));
	if (EncodeHead(again) != EncodeHead(head_)) {
		throw Error("changed while it was read");
	}
	frames_ =
	    DecodeFrames(SignedPart().substr(head_.TableOffset(), head_.SignatureOffset() - head_.TableOffset()), head_);
	std::uint64_t offset = head_.PayloadOffset();
	for (const Frame& frame : frames_) {
		offsets_.push_back(offset);
		offset += frame.packed_size;
	}
}

std::size_t ArchiveFile::Check(const std::vector<TrustedKey>& keys, std::uint32_t key_type) const {
	if (keys.empty()) {
		throw NotTrusted("cannot be checked: there is no trusted key");
	}
	const auto signer = std::find_if(keys.begin(), keys.end(),
	    [this](const TrustedKey& trusted) { return trusted.key.Verify(message_, signature_); });
	if (signer == keys.end()) {
		throw NotTrusted("has no signature by a trusted key");
	}
	if (head_.key_type != key_type) {
		throw Error("is signed for key type " + std::to_string(head_.key_type) + ", not " + std::to_string(key_type));
	}
	CheckPayload();
	return static_cast<std::size_t>(signer - keys.begin());
}

void ArchiveFile::CheckPayload() const {
	constexpr std::size_t kMaxShares = 4; // Each takes a frame's memory, and disks give no more work to do.
	const std::size_t shares = std::min({kMaxShares, std::size_t{Processors()}, frames_.size()});
	DoInParallel(shares, [&](std::size_t share) {
		std::string buffer;
		for (std::size_t index = share; index < frames_.size(); index += shares) {
			ReadFrame(index, buffer);
		}
	});
}

void ArchiveFile::ReadFrame(std::size_t index, std::string& buffer) const {
	const Frame& frame = frames_.at(index);
	const std::uint64_t offset = offsets_.at(index);
	buffer.resize(frame.packed_size);
	if (!ReadFullyAt(fd_.Get(), buffer.data(), buffer.size(), offset)) {
		throw Error("became shorter while it was read");
	}
	if (Sha256::Of(buffer) != frame.digest) {
		throw Error("is damaged: the payload differs from its signed digest at byte " + std::to_string(offset));
	}
}

} // namespace tarn::archive
