#include "archive/sealer.h"

#include "base/error.h"
#include "base/file_io.h"
#include "base/text.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace tarn::archive {

namespace {

UniqueFd NamelessFile(const std::string& directory) {
	std::string name = directory + "/.tarndbudpub-payload-XXXXXX.part";
	constexpr int kSuffixLength = 5;
	UniqueFd fd(mkostemps(name.data(), kSuffixLength, O_CLOEXEC));
	if (!fd || unlink(name.c_str()) != 0) {
		throw Error(ErrnoText("No file can be created in " + directory, errno) + ".");
	}
	return fd;
}

} // namespace

ArchiveSealer::ArchiveSealer(const std::string& directory) : directory_(directory), payload_(NamelessFile(directory)) {
	chunk_.reserve(kChunkSize);
}

void ArchiveSealer::Append(std::string_view bytes) {
	while (!bytes.empty()) {
		const std::string_view part = bytes.substr(0, kChunkSize - chunk_.size());
		chunk_ += part;
		bytes.remove_prefix(part.size());
		if (chunk_.size() == kChunkSize) {
			FinishChunk();
		}
	}
}

void ArchiveSealer::FinishChunk() {
	const Digest digest = Sha256(chunk_.data(), chunk_.size());
	table_.append(reinterpret_cast<const char*>(digest.data()), digest.size());
	WriteFully(payload_.Get(), chunk_.data(), chunk_.size(), "the package's payload in " + directory_);
	payload_size_ += chunk_.size();
	if (payload_size_ > kMaxPayloadSize) {
		throw Error("The package would be larger than devices accept, " + std::to_string(kMaxPayloadSize) + " bytes.");
	}
	chunk_.clear();
}

std::uint64_t ArchiveSealer::Seal(
    ArchiveHead head, std::string_view metadata, const SigningKey& key, int archive_fd, const std::string& path) {
	if (!chunk_.empty()) {
		FinishChunk();
	}
	if (metadata.size() > kMaxMetadataSize) {
		throw Error("The package's metadata would be too long.");
	}
	head.payload_size = payload_size_;
	head.metadata_size = static_cast<std::uint32_t>(metadata.size());
	std::string message(kSignatureDomain);
	message += EncodeHead(head);
	message += metadata;
	message += table_;
	const Signature signature = key.Sign(message);
	const std::string_view visible = std::string_view(message).substr(kSignatureDomain.size());
	WriteFully(archive_fd, visible.data(), visible.size(), path);
	WriteFully(archive_fd, signature.data(), signature.size(), path);
	std::string buffer(kChunkSize, '\0');
	for (std::uint64_t offset = 0; offset < payload_size_; offset += buffer.size()) {
		buffer.resize(std::min<std::uint64_t>(buffer.size(), payload_size_ - offset));
		if (!ReadFullyAt(payload_.Get(), buffer.data(), buffer.size(), offset)) {
			throw Error("The package's payload became shorter while it was written to " + path + ".");
		}
		WriteFully(archive_fd, buffer.data(), buffer.size(), path);
	}
	return head.FileSize();
}

} // namespace tarn::archive
