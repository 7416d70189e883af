#include "dataupdate/file_lock.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "host/commands/commands.h"
#include "host/commands/report.h"
#include "host/library/checked_info_getter.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

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

/** Whoever is fetching the document is about to read it. */
bool DropDocumentUnderLock() {
	try {
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

ExitCode Run(const Services& services, const Options& options) {
	const bool dropped = DropDocumentUnderLock();
	Json::Value object(Json::objectValue);
	object["dropped"] = dropped;
	Answer(services, options,
	    dropped ? "The server's document was dropped; the next command asks for it anew.\n"
	            : "There is no document to drop; the next command asks the server.\n",
	    object);
	return kDone;
}

} // namespace

const Command kRefreshCommand = {"refresh", "Drop the cached server document",
    "The document is otherwise used for an hour, even if it is a login page that a network sent in its place.",
    {kLocked}, true, false, DeclareJsonObject, Run};

} // namespace tarn::ctl
