#include "dataupdate/internal/cached_info.h"

#include "base/unique_fd.h"
#include "dataupdate/paths.h"
#include "dataupdate/update.h"
#include "dataupdate/update_error.h"

#include <tarncore/tarncore.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarn::dataupdate {

namespace {

/**
 * The client dates a file as the server does: an old document would never count as cached, and one that is dated in the
 * future would never be asked for again. A failure leaves it at that.
 */
void StartAge(const char* path) {
	utimensat(AT_FDCWD, path, nullptr, 0);
}

/**
 * Stands while the document is being fetched: what a killed fetch leaves is no document, however new its file is. It
 * needs no more care than that: without it, as before the first fetch, the age alone decides.
 */
void MarkFetch() {
	const UniqueFd mark(open(kFetchMark, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
}

bool IsFetchUnfinished() {
	return access(kFetchMark, F_OK) == 0;
}

/** The mark goes with every download that ends: it tells of a process that was killed, and of nothing else. */
void Fetch(const IOUtils& io, const std::string& url) {
	if (IsFetchUnfinished()) {
		unlink(kCachedInfo); // Or it would count once the mark is gone, should this download not even begin.
	}
	MarkFetch();
	try {
		io.Download(kCachedInfo, url);
	} catch (const UpdateError&) {
		unlink(kFetchMark);
		throw;
	}
	StartAge(kCachedInfo);
	unlink(kFetchMark);
}

} // namespace

void RenewCachedInfo(const IOUtils& io, const std::function<std::string()>& make_url) {
	if (TLIBCFileExist(kCachedInfo) == 0 || IsFetchUnfinished() || io.FileCreateOver(kCachedInfo, kFreshInfoSeconds)) {
		Fetch(io, make_url());
	}
}

} // namespace tarn::dataupdate
