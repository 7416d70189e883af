/** @file Making a signed archive of a payload. */
#ifndef ARCHIVE_SEALER_H
#define ARCHIVE_SEALER_H

#include "archive/head.h"
#include "archive/signing_key.h"
#include "base/unique_fd.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace tarn::archive {

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
