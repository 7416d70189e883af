#include "dataupdate/download_source.h"

#include "base/file_io.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/file_copy.h"
#include "dataupdate/internal/log.h"
#include "dataupdate/messages.h"
#include "dataupdate/space_shortage.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"

#include <tarncore/tarncore.h>

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

namespace tarn::dataupdate {

namespace {

// The name by which the lines about downloads are known.
constexpr char kLogSource[] = "utils.cpp";
constexpr char kWget[] = "/usr/bin/wget";
constexpr std::uint64_t kReservedShare = 20;
constexpr std::uint64_t kSmallFile = std::uint64_t{2} << 20U;

/** Null as long as everything is downloaded. */
std::shared_ptr<const DownloadSource> current;

[[noreturn]] void FailToWrite(const std::string& path) {
	throw UpdateError(messages::kCannotWrite + path + " (" + std::strerror(errno) + ")");
}

/** The file that a killed run left may be a second name of another one, so it goes first. */
Draft Create(const std::string& path) {
	constexpr mode_t kMode = 0644;
	RemoveFile(path);
	Draft draft = CreateDraft(path, kMode);
	if (!draft) {
		FailToWrite(path);
	}
	return draft;
}

/** Other programs on the volume need space too; a small file may take as much as it leaves. */
void RequireSpace(int fd, const std::string& path, std::uint64_t written) {
	struct statvfs space {};
	if (fstatvfs(fd, &space) != 0) {
		return; // As for downloads: what is full is told by writing.
	}
	const std::uint64_t capacity = std::uint64_t{space.f_blocks} * space.f_frsize;
	const std::uint64_t available = std::uint64_t{space.f_bavail} * space.f_frsize;
	const std::uint64_t reserve = capacity / kReservedShare;
	const std::uint64_t least = written > kSmallFile ? reserve : std::min(reserve, written);
	if (available < least) {
		NoteSpaceShortage({path, available, capacity, least - available});
		throw UpdateError(messages::kLowSpace);
	}
}

/**
 * Fetches a URL into a file, which is new afterwards, or gone when that fails. Leaves a twentieth of the file system
 * free, as downloads do, and lets itself be ended early.
 */
void FetchFile(const DownloadSource& source, const std::string& output_path, const std::string& url) {
	const ActivityScope activity(Phase::kDownload, output_path);
	Draft draft = Create(output_path);
	std::uint64_t written = 0;
	source.Fetch(url, [&](std::string_view bytes) {
		InterruptionPoint();
		if (!WriteAll(draft.Fd(), bytes.data(), bytes.size())) {
			FailToWrite(output_path);
		}
		written += bytes.size();
		RequireSpace(draft.Fd(), output_path, written);
	});
	draft.Keep(); // Not counted as downloaded, by which hosts tell what their network has cost.
}

/** Counts what has arrived, also of a download that failed. A file that cannot be examined is no failed download. */
void CountDownload(const std::string& path) {
	struct stat status {};
	if (stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
		AddDownloadedBytes(static_cast<std::uint64_t>(status.st_size));
	}
}

} // namespace

DownloadSource::~DownloadSource() = default;

DownloadSourceScope::DownloadSourceScope(std::shared_ptr<const DownloadSource> source) {
	current = std::move(source);
}

DownloadSourceScope::~DownloadSourceScope() {
	current = nullptr;
}

void IOUtils::Download(const std::string& output_path, const std::string& url) const {
	if (const auto source = current) {
		FetchFile(*source, output_path, url);
		return;
	}
	const std::string agent = TarnGetUserAgent("database");
	TARN_LOG(LOG_DEBUG, "Use %s as user agent string", agent.c_str());
	const ActivityScope activity(Phase::kDownload, output_path);
	const bool is_option = !url.empty() && url.front() == '-';
	const bool succeeded =
	    !is_option && TLIBCExecl(kWget, TLIBC_EXEC_ISOLATED, "-N", url.c_str(), "-O", output_path.c_str(), "-U",
	                      agent.c_str(), "--dns-timeout=8", "--connect-timeout=15", "--tries=3", nullptr) == 0;
	if (!is_option) {
		CountDownload(output_path);
	}
	if (!succeeded) {
		RemoveFile(output_path);
		throw UpdateError(messages::kCannotDownload + url);
	}
}

} // namespace tarn::dataupdate
