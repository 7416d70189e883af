/** @file Making a signed archive: the tar, and the seal. Frames between them come from archive/packer.h. */
#ifndef ARCHIVE_WRITER_H
#define ARCHIVE_WRITER_H

#include "archive/head.h"
#include "archive/signing_key.h"
#include "base/handle.h"
#include "base/unique_fd.h"

#include <archive.h>
#include <archive_entry.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <string>
#include <string_view>

namespace tarn::archive {

/** Gets the next bytes of a stream. */
using Sink = std::function<void(std::string_view)>;

/** Writes what the payload of a package holds: a tar in the GNU form, with nothing in it but names and content. */
class TarWriter {
public:
	explicit TarWriter(Sink sink);
	TarWriter(const TarWriter&) = delete;
	TarWriter& operator=(const TarWriter&) = delete;

	void BeginFile(const std::string& name, std::uint64_t size, bool executable);
	void WriteContent(std::string_view bytes);
	/** Writes the file's padding, so that it lies with the file and not with what follows. */
	void EndFile();
	/** Any other member; the publisher writes none, the tests of readers do. */
	void WriteEntry(archive_entry* entry);
	void Finish();

private:
	static la_ssize_t Drain(::archive* writer, void* self, const void* block, std::size_t size);
	void Check(la_ssize_t result);

	Sink sink_;
	std::exception_ptr error_; // what the sink threw, carried past libarchive
	Handle<archive_entry, archive_entry_free> entry_;
	Handle<::archive, archive_write_free> writer_;
};

/**
 * Turns a payload into a signed archive. The payload is collected in a file without a name, because the head that
 * goes before it depends on its length; nothing of it stays behind when the process is killed.
 */
class ArchiveSealer {
public:
	/** @param directory  where the collecting file gets its space, best the archive's own directory */
	explicit ArchiveSealer(const std::string& directory);

	/** The next frame of the payload, whose bytes are compressed as the frame says; its digest is computed here. */
	void Append(Frame frame, std::string_view packed);

	/**
	 * Writes the archive, and returns its size. The head has key type, entries and unpacked bytes; the rest is filled
	 * in here. The path names the archive in errors.
	 */
	std::uint64_t Seal(
	    ArchiveHead head, std::string_view metadata, const SigningKey& key, int archive_fd, const std::string& path);

private:
	std::string directory_;
	UniqueFd payload_;
	std::uint64_t payload_size_ = 0;
	std::string table_;
};

} // namespace tarn::archive

#endif
