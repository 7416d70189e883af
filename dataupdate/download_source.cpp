#include "dataupdate/download_source.h"

#include "base/file_io.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/fetch.h"
#include "dataupdate/internal/file_copy.h"
#include "dataupdate/messages.h"
#include "dataupdate/space_shortage.h"
#include "dataupdate/update_error.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

namespace tarn::dataupdate {

namespace {

constexpr std::uint64_t kReservedShare = 20;
constexpr std::uint64_t kSmallFile = std::uint64_t{2} << 20U;

std::shared_ptr<const DownloadSource>& Current() {
	static std::shared_ptr<const DownloadSource> source;
	return source;
}

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

} // namespace

DownloadSource::~DownloadSource() = default;

DownloadSourceScope::DownloadSourceScope(std::shared_ptr<const DownloadSource> source) {
	Current() = std::move(source);
}

DownloadSourceScope::~DownloadSourceScope() {
	Current() = nullptr;
}

std::shared_ptr<const DownloadSource> CurrentSource() {
	return Current();
}

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

} // namespace tarn::dataupdate
