#include "dataupdate/installation.h"

#include "base/file_io.h"
#include "dataupdate/internal/log.h"
#include "dataupdate/internal/replacement_plan.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"

#include <boost/filesystem.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tarn::dataupdate {

namespace fs = boost::filesystem;

namespace {

constexpr char kLogSource[] = "installation.cpp";

/** Whether there is such a file; treats a file whose status cannot be had as existing. */
bool MayExist(const std::string& path) {
	boost::system::error_code ignored;
	return fs::symlink_status(path, ignored).type() != fs::file_not_found;
}

/** Readers wait for this, so nothing goes to the disk twice: an empty file is no more than its name. */
bool CreateEmptyDurably(const fs::path& path) {
	const UniqueFd mark(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
	// The database's directory may be new as well.
	return mark && SyncDirectory(path.parent_path().string()) &&
	       SyncDirectory(path.parent_path().parent_path().string());
}

void SetMark(const fs::path& path) {
	try {
		fs::create_directories(path.parent_path());
	} catch (const fs::filesystem_error& error) {
		throw UpdateError(std::string("Fail to mark replacement: ") + error.what());
	}
	if (!CreateEmptyDurably(path)) {
		throw UpdateError("Fail to mark replacement: " + path.string() + ": " + std::strerror(errno));
	}
}

} // namespace

DatabaseStatus ReadRecord(const IOUtils& io, const std::string& id) {
	return DatabaseStatus::FromJson(io.ReadJson(StatusPath(id)));
}

void WriteRecord(const IOUtils& io, const std::string& id, const DatabaseStatus& status) {
	io.WriteJson(StatusPath(id), DatabaseStatus::ToJson(status));
}

void SetReplacementMark(const std::string& id) {
	RemovePlan(id);
	SetMarkOverPlan(id);
}

void SetMarkOverPlan(const std::string& id) {
	SetMark(ReplacementMarkPath(id));
}

bool MarkUnfinished(const std::string& id) {
	const std::string mark = ReplacementMarkPath(id);
	if (MayExist(mark)) {
		return false;
	}
	RemovePlan(id);
	try {
		SetMark(mark);
	} catch (const UpdateError&) {
		unlink(mark.c_str()); // The mark was not set before, and nothing will be changed.
		throw;
	}
	return true;
}

bool IsReplacementMarked(const std::string& id) {
	return MayBeAMixture(id) && MayExist(StatusPath(id));
}

bool MayBeAMixture(const std::string& id) {
	return MayExist(ReplacementMarkPath(id));
}

void ClearReplacementMark(const std::string& id) noexcept {
	const std::string mark = ReplacementMarkPath(id);
	// A missing record is no failure: a host may keep its records elsewhere.
	const bool is_removed = SyncFile(StatusPath(id)) && (unlink(mark.c_str()) == 0 || errno == ENOENT);
	if (!is_removed) {
		TARN_LOG(LOG_ERR, "Failed to remove %s: %s", mark.c_str(), std::strerror(errno));
		return;
	}
	RemovePlan(id);
}

} // namespace tarn::dataupdate
