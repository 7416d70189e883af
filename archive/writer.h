/** @file Making a signed archive: the tar, its compression, and the seal. */
#ifndef ARCHIVE_WRITER_H
#define ARCHIVE_WRITER_H

#include "archive/head.h"
#include "archive/signing_key.h"
#include "base/unique_fd.h"

#include <archive.h>
#include <archive_entry.h>
#include <zstd.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::archive {

/** Compresses a byte stream with zstd in one thread, so that the same input gives the same output. */
class ZstdWriter {
public:
	using Sink = std::function<void(std::string_view)>;

	ZstdWriter(int level, Sink sink);
	/** Tells beforehand how many bytes will come, so that few of them need little memory. */
	void ExpectSize(std::uint64_t size);
	void Write(std::string_view bytes) { Compress(bytes, ZSTD_e_continue); }
	void Finish() { Compress({}, ZSTD_e_end); }

private:
	struct ContextDeleter {
		void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
	};

	void Compress(std::string_view bytes, ZSTD_EndDirective directive);

	std::unique_ptr<ZSTD_CCtx, ContextDeleter> context_;
	std::vector<char> buffer_;
	Sink sink_;
};

/** Writes the payload of a package: a tar in the GNU form, compressed, with nothing in it but names and content. */
class TarZstdWriter {
public:
	TarZstdWriter(int level, ZstdWriter::Sink sink);
	TarZstdWriter(const TarZstdWriter&) = delete;
	TarZstdWriter& operator=(const TarZstdWriter&) = delete;
	~TarZstdWriter() = default;

	void BeginFile(const std::string& name, std::uint64_t size, bool executable);
	void WriteContent(std::string_view bytes);
	/** Any other member; the publisher writes none, the tests of readers do. */
	void WriteEntry(archive_entry* entry);
	void Finish();

private:
	struct WriteDeleter {
		void operator()(::archive* writer) const { archive_write_free(writer); }
	};
	struct EntryDeleter {
		void operator()(archive_entry* entry) const { archive_entry_free(entry); }
	};

	static la_ssize_t Drain(::archive* writer, void* self, const void* block, std::size_t size);
	void Check(la_ssize_t result);

	ZstdWriter zstd_;
	std::exception_ptr error_; // what the sink threw, carried past libarchive
	std::unique_ptr<archive_entry, EntryDeleter> entry_;
	std::unique_ptr<::archive, WriteDeleter> writer_;
};

/**
 * Turns a payload into a signed archive. The payload is collected in a file without a name, because the head that
 * goes before it depends on its length; nothing of it stays behind when the process is killed.
 */
class ArchiveSealer {
public:
	/** @param directory  where the collecting file gets its space, best the archive's own directory */
	explicit ArchiveSealer(const std::string& directory);

	/** The next bytes of the payload. */
	void Append(std::string_view bytes);

	/**
	 * Writes the archive.
	 *
	 * @param head      key type, entries and unpacked bytes; the sizes are filled in here
	 * @param metadata  JSON text
	 * @param path      names the archive in errors
	 * @return the archive's size
	 */
	std::uint64_t Seal(
	    ArchiveHead head, std::string_view metadata, const SigningKey& key, int archive_fd, const std::string& path);

private:
	void FinishChunk();

	std::string directory_;
	UniqueFd payload_;
	std::uint64_t payload_size_ = 0;
	std::string chunk_;
	std::string table_;
};

} // namespace tarn::archive

#endif
