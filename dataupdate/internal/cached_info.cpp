#include "dataupdate/internal/cached_info.h"

#include "base/unique_fd.h"
#include "dataupdate/paths.h"
#include "dataupdate/update.h"
#include "dataupdate/update_error.h"

#include <tarncore/tarncore.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace tarn::dataupdate {

namespace {

/**
 * Dates the document by its download. The client dates a file as the server does: an old document would be downloaded
 * every time, and a document dated in the future never again. A failure leaves the server's date.
 */
void StartAge(const char* path) {
	utimensat(AT_FDCWD, path, nullptr, 0);
}

/**
 * Sets a mark for the time of a download: what a killed download leaves is no document, however new its file is. The
 * mark is not synced, because it comes to the disk before the file that is changed after it, and what is older than
 * both is the document of before.
 */
void MarkFetch() {
	const UniqueFd mark(open(kFetchMark, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
}

bool IsFetchUnfinished() {
	return access(kFetchMark, F_OK) == 0;
}

/** Whether a document is on the disk, so that a loss of power leaves no empty file that is taken for it. */
bool Sync(const char* path) {
	const UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
	return file ? fsync(file.Get()) == 0 : errno == ENOENT;
}

/**
 * Removes the mark after every download that ends, so that the mark tells only of a process that was killed, or of a
 * document that could not be brought to the disk.
 */
void Fetch(const IOUtils& io, const std::string& url) {
	if (IsFetchUnfinished()) {
		unlink(kCachedInfo); // Else it would be used once the mark is gone, if this download does not begin.
	}
	MarkFetch();
	try {
		io.Download(kCachedInfo, url);
	} catch (const UpdateError&) {
		unlink(kFetchMark);
		throw;
	}
	StartAge(kCachedInfo);
	if (Sync(kCachedInfo)) {
		unlink(kFetchMark);
	}
}

} // namespace

void RenewCachedInfo(const IOUtils& io, const std::function<std::string()>& make_url) {
	if (TLIBCFileExist(kCachedInfo) == 0 || IsFetchUnfinished() || io.FileCreateOver(kCachedInfo, kFreshInfoSeconds)) {
		Fetch(io, make_url());
	}
}

} // namespace tarn::dataupdate
