/** @file The digests of large new files, taken while other files are still being made. */
#ifndef DATAUPDATE_INTERNAL_EARLY_DIGESTS_H
#define DATAUPDATE_INTERNAL_EARLY_DIGESTS_H

#include "base/unique_fd.h"
#include "dataupdate/internal/digests_ahead.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarn::dataupdate {

/**
 * Patching a file, or renaming many, keeps one processor busy at most; the others read what is ready. Holds the files
 * open, so that each digest is of the file that was begun, whatever its path names later.
 */
class EarlyDigests {
public:
	/** Begins with a file that nobody will write to any more, if that is worth a thread and one is free. */
	void Begin(const std::string& path);

	/**
	 * The digest of the file at a path, once for each file; waits for it. None when no such file was begun, or it was
	 * written to since, or could not be read: an ordinary digest tells why.
	 */
	[[nodiscard]] std::optional<std::string> Take(const std::string& path);

private:
	struct File {
		std::string identity;
		UniqueFd fd;
		std::unique_ptr<DigestsAhead> digest;
	};

	std::vector<File> files_;
};

} // namespace tarn::dataupdate

#endif
