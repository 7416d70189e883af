#include "replacement_mark.h"

#include "interruption.h"
#include "log.h"
#include "paths.h"
#include "update_error.h"

#include <boost/filesystem.hpp>

#include <base/unique_fd.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tarn::dataupdate {

namespace fs = boost::filesystem;

namespace {

constexpr char kLogSource[] = "strategy";

/** Whether there is such a name; one that cannot be examined counts. */
bool MayExist(const std::string& path) {
	boost::system::error_code ignored;
	return fs::symlink_status(path, ignored).type() != fs::file_not_found;
}

bool SyncDirectory(const fs::path& path) {
	const UniqueFd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	return directory.Get() >= 0 && fsync(directory.Get()) == 0;
}

bool SyncRecord(const std::string& path) {
	const UniqueFd record(open(path.c_str(), O_RDONLY | O_CLOEXEC));
	// A host may keep its records elsewhere.
	return record.Get() < 0 ? errno == ENOENT : fsync(record.Get()) == 0;
}

bool CreateDurably(const fs::path& path) {
	const UniqueFd mark(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
	// The database's directory may be new as well.
	return mark.Get() >= 0 && fsync(mark.Get()) == 0 && SyncDirectory(path.parent_path()) &&
	       SyncDirectory(path.parent_path().parent_path());
}

void SetMark(const fs::path& path) {
	try {
		fs::create_directories(path.parent_path());
	} catch (const fs::filesystem_error& error) {
		throw UpdateError(std::string("Fail to mark replacement: ") + error.what());
	}
	if (!CreateDurably(path)) {
		const int error = errno;
		unlink(path.c_str()); // Nothing has changed yet.
		throw UpdateError("Fail to mark replacement: " + path.string() + ": " + std::strerror(error));
	}
}

void RemoveMark(const std::string& path) {
	if (unlink(path.c_str()) != 0 && errno != ENOENT) {
		TARN_LOG(LOG_ERR, "Failed to remove %s: %s", path.c_str(), std::strerror(errno));
	}
}

} // namespace

void SetReplacementMark(const std::string& id) {
	SetMark(ReplacementMarkPath(id));
	SetReplacing(true);
}

bool MarkUnfinished(const std::string& id) {
	const std::string mark = ReplacementMarkPath(id);
	if (MayExist(mark)) {
		return false;
	}
	SetMark(mark);
	return true;
}

bool IsReplacementMarked(const std::string& id) {
	return MayExist(ReplacementMarkPath(id)) && MayExist(StatusPath(id));
}

void ClearReplacementMark(const std::string& id) noexcept {
	const std::string mark = ReplacementMarkPath(id);
	if (SyncRecord(StatusPath(id))) {
		RemoveMark(mark);
	} else {
		TARN_LOG(LOG_ERR, "Failed to remove %s: %s", mark.c_str(), std::strerror(errno));
	}
}

void SetOverlayMark(const std::string& id) {
	SetMark(OverlayMarkPath(id));
}

bool IsOverlayMarked(const std::string& id) {
	return MayExist(OverlayMarkPath(id));
}

void ClearOverlayMark(const std::string& id) noexcept {
	RemoveMark(OverlayMarkPath(id));
}

} // namespace tarn::dataupdate
