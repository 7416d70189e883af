#include "host/library/cached_document.h"

#include "dataupdate/file_lock.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "host/library/checked_info_getter.h"
#include "host/library/failure.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace tarn::ctl {

namespace {

/** Whether there was a document to drop. */
bool DropDocument() {
	if (unlink(dataupdate::kCachedInfo) == 0) {
		return true;
	}
	if (errno == ENOENT) {
		return false;
	}
	throw CommandError(
	    kFailed, std::string(dataupdate::kCachedInfo) + " cannot be removed (" + std::strerror(errno) + ")");
}

} // namespace

bool DropCachedDocument() {
	try {
		// Whoever is fetching the document is about to read it.
		const dataupdate::FileLock lock(dataupdate::kFreshInfoLock, kMomentSeconds);
		return DropDocument();
	} catch (const dataupdate::UpdateError& error) {
		if (CategoryOf(error.what()) != Category::kLocked) {
			throw;
		}
	}
	throw CommandError(kLocked, "The server's document is being fetched at this moment, so it was not dropped; try "
	                            "again when that has ended");
}

} // namespace tarn::ctl
