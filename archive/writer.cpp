#include "archive/writer.h"

#include "base/error.h"
#include "base/file_io.h"
#include "base/sha2.h"
#include "base/text.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace tarn::archive {

namespace {

constexpr unsigned kFileMode = 0644;
constexpr unsigned kExecutableMode = 0755;

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

TarWriter::TarWriter(Sink sink) : sink_(std::move(sink)), entry_(archive_entry_new()), writer_(archive_write_new()) {
	Require(entry_ && writer_, "There is no memory to pack.");
	// The GNU form keeps names as the bytes they are, however long, and needs no locale.
	Check(archive_write_set_format_gnutar(writer_.get()));
	Check(archive_write_set_bytes_per_block(writer_.get(), 0));
	Check(archive_write_open(writer_.get(), this, nullptr, Drain, nullptr));
}

la_ssize_t TarWriter::Drain(::archive* writer, void* self, const void* block, std::size_t size) {
	auto* own = static_cast<TarWriter*>(self);
	try {
		own->sink_({static_cast<const char*>(block), size});
		return static_cast<la_ssize_t>(size);
	} catch (...) {
		own->error_ = std::current_exception();
		archive_set_error(writer, EIO, "the package cannot be written");
		return -1;
	}
}

void TarWriter::Check(la_ssize_t result) {
	if (error_) {
		std::rethrow_exception(error_);
	}
	if (result < ARCHIVE_OK) {
		const char* reason = archive_error_string(writer_.get());
		throw Error(std::string("The package could not be packed: ") + (reason == nullptr ? "" : reason) + ".");
	}
}

void TarWriter::BeginFile(const std::string& name, std::uint64_t size, bool executable) {
	archive_entry_clear(entry_.get());
	archive_entry_set_pathname(entry_.get(), name.c_str());
	archive_entry_set_filetype(entry_.get(), AE_IFREG);
	archive_entry_set_perm(entry_.get(), executable ? kExecutableMode : kFileMode);
	archive_entry_set_size(entry_.get(), static_cast<la_int64_t>(size));
	archive_entry_set_mtime(entry_.get(), 0, 0);
	WriteEntry(entry_.get());
}

void TarWriter::WriteEntry(archive_entry* entry) {
	Check(archive_write_header(writer_.get(), entry));
}

void TarWriter::WriteContent(std::string_view bytes) {
	while (!bytes.empty()) {
		const la_ssize_t count = archive_write_data(writer_.get(), bytes.data(), bytes.size());
		Check(count);
		Require(count > 0, "The package could not be packed: a file is longer than announced.");
		bytes.remove_prefix(static_cast<std::size_t>(count));
	}
}

void TarWriter::EndFile() {
	Check(archive_write_finish_entry(writer_.get()));
}

void TarWriter::Finish() {
	Check(archive_write_close(writer_.get()));
}

ArchiveSealer::ArchiveSealer(const std::string& directory) : directory_(directory), payload_(NamelessFile(directory)) {}

void ArchiveSealer::Append(Frame frame, std::string_view packed) {
	frame.packed_size = static_cast<std::uint32_t>(packed.size());
	frame.digest = Sha256::Of(packed);
	table_ += EncodeFrame(frame);
	WriteFully(payload_.Get(), packed.data(), packed.size(), "the package's payload in " + directory_);
	payload_size_ += packed.size();
	if (payload_size_ > kMaxPayloadSize || table_.size() > kMaxFrames * kFrameEntrySize) {
		throw Error("The package would be larger than devices accept, " + std::to_string(kMaxPayloadSize) + " bytes.");
	}
}

std::uint64_t ArchiveSealer::Seal(
    ArchiveHead head, std::string_view metadata, const SigningKey& key, int archive_fd, const std::string& path) {
	Require(metadata.size() <= kMaxMetadataSize, "The package's metadata would be too long.");
	head.payload_size = payload_size_;
	head.frame_count = static_cast<std::uint32_t>(table_.size() / kFrameEntrySize);
	head.metadata_size = static_cast<std::uint32_t>(metadata.size());
	std::string message(kSignatureDomain);
	message += EncodeHead(head);
	message += metadata;
	message += table_;
	const Signature signature = key.Sign(message);
	const std::string_view visible = std::string_view(message).substr(kSignatureDomain.size());
	WriteFully(archive_fd, visible.data(), visible.size(), path);
	WriteFully(archive_fd, signature.data(), signature.size(), path);
	constexpr std::size_t kBufferSize = std::size_t{1} << 20U;
	std::string buffer(kBufferSize, '\0');
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
