#include "commands.h"
#include "databases.h"

#include <dataupdate/file_lock.h>
#include <dataupdate/paths.h>

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

} // namespace

ExitCode RunRefresh(const Services& services, const Options& options) {
	// Whoever is fetching the document is about to read it.
	const dataupdate::FileLock lock(dataupdate::kFreshInfoLock, dataupdate::kLockTimeout);
	const bool dropped = DropDocument();
	Json::Value object(Json::objectValue);
	object["dropped"] = dropped;
	Answer(services, options,
	    dropped ? "The server's document was dropped; the next command asks for it anew.\n"
	            : "There is no document to drop; the next command asks the server.\n",
	    object);
	return kDone;
}

} // namespace tarn::ctl
