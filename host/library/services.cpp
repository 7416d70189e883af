#include "host/library/services.h"

#include "base/document_limit.h"
#include "base/error.h"
#include "base/file_io.h"
#include "base/unique_fd.h"
#include "dataupdate/interruption.h"
#include "dataupdate/messages.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "host/library/checked_info_getter.h"
#include "host/library/install_place.h"
#include "host/library/package_size.h"
#include "host/terminal/text.h"

#include <tarnsdk/volume.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <filesystem>
#include <system_error>
#include <utility>

namespace tarn::ctl {

using dataupdate::UpdateError;

namespace {

constexpr mode_t kMode = 0644;
constexpr mode_t kPermissions = 07777;

// Long enough for files to be put in place, short enough for a collector.
constexpr unsigned long kFilesSeconds = 1;

constexpr useconds_t kPauseMicroseconds = 20000;
constexpr int kMostPauses = 100;

bool MayBeBeingWritten(const std::string& path) {
	struct stat status {};
	timespec now{};
	return clock_gettime(CLOCK_REALTIME, &now) == 0 && stat(path.c_str(), &status) == 0 && IsNew(status.st_mtim, now);
}

bool IsThere(const std::string& path) {
	struct stat status {};
	return lstat(path.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

/** A disk may fail once; the library would then believe that nothing was set, and write that. */
bool MayBeReadLater(const std::string& path, const UpdateError& error, bool is_first) {
	return (is_first && IsThere(path)) ||
	       (CategoryOf(error.what()) == Category::kUndecodable && MayBeBeingWritten(path));
}

void LimitDigestThreads(const dataupdate::Config& settings) {
	unsigned long count = 0;
	try {
		count = settings.GetAsUInt64("config", "digest_threads");
	} catch (const std::exception&) {
		// Defaults from before the setting lack it, and settings that cannot be used are refused before any work.
	}
	dataupdate::LimitDigestThreads(static_cast<unsigned>(count));
}

bool IsVolumeAvailable(const std::string& volume) {
	return TARNMountVolInfoGet(volume.c_str(), std::make_unique<TARNMountVolInfo>().get()) == 0;
}

} // namespace

ReaderLock::ReaderLock(const std::string& id, unsigned long timeout_seconds)
    : fd_(TARNDBUDGetFileLock(id.c_str(), timeout_seconds)) {
	if (fd_ == -1) {
		throw CommandError(kLocked, "The database is being replaced; try later");
	}
}

ReaderLock::~ReaderLock() {
	TARNDBUDReleaseFileLock(fd_);
}

bool MakeReaderLockFile(const std::string& id) {
	// Nothing below /run survives a restart.
	std::error_code ignored;
	std::filesystem::create_directories(dataupdate::kLockDirectory, ignored);
	const std::string path = dataupdate::UsingLockPath(id);
	const UniqueFd file(open(path.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kMode));
	struct stat status {};
	if (!file || fstat(file.Get(), &status) != 0) {
		return false;
	}
	// Somebody's mask may have shut readers out.
	return status.st_uid != geteuid() || (status.st_mode & kPermissions) == kMode || fchmod(file.Get(), kMode) == 0;
}

bool IsNew(const timespec& changed, const timespec& now) {
	constexpr double kSeconds = 2;
	constexpr double kNanosecond = 1e-9;
	const auto seconds = static_cast<double>(now.tv_sec - changed.tv_sec);
	return std::abs(seconds + static_cast<double>(now.tv_nsec - changed.tv_nsec) * kNanosecond) < kSeconds;
}

Json::Value CheckedIO::ReadJson(const std::string& path) const {
	if (path == dataupdate::kCachedInfo) {
		if (GetSize(path) > kLargestDocument) {
			throw UpdateError(dataupdate::messages::kCannotDecode + path);
		}
		return IOUtils::ReadJson(path); // Nobody writes it while its lock is held.
	}
	for (int pauses = 0;; ++pauses) {
		try {
			return IOUtils::ReadJson(path);
		} catch (const UpdateError& error) {
			if (pauses == kMostPauses || !MayBeReadLater(path, error, pauses == 0)) {
				throw;
			}
		}
		usleep(kPauseMicroseconds);
	}
}

void CheckedIO::WriteJson(const std::string& path, const Json::Value& value) const {
	// The administrator may have put a link in its place.
	std::error_code error;
	const std::filesystem::path real = std::filesystem::weakly_canonical(path, error);
	const std::filesystem::path place = error ? std::filesystem::path(path) : real;
	std::filesystem::create_directories(place.parent_path(), error);
	if (error) {
		throw UpdateError("Fail to create parent folder: " + path);
	}
	try {
		WriteWholeFile(place, FormatJson(value));
		if (SyncDirectory(place.parent_path())) {
			return;
		}
	} catch (const Error&) {
		// Told below, like a directory that does not reach the disk.
	}
	throw UpdateError(dataupdate::messages::kCannotWrite + path);
}

Services MakeServices(Terminal& terminal) {
	const auto io = std::make_shared<CheckedIO>();
	const auto settings = std::make_shared<dataupdate::Config>(io);
	const auto config = std::make_shared<dataupdate::ServiceConfig>(settings);
	LimitDigestThreads(*settings);
	const auto limits = std::make_shared<DownloadLimits>();
	LimitDownloads(limits);
	const auto info = std::make_shared<CheckedInfoGetter>(io, config, limits);
	const auto update = [](auto&&... arguments) { return dataupdate::Updater().UpdateAndTell(arguments...); };
	return {io, config, info, update, std::make_shared<dataupdate::Checker>(config), terminal, IsVolumeAvailable,
	    [info] { info->Hurry(); }, [info](const std::string& id) { return info->GetRecord(id); },
	    [](const std::string& id, const dataupdate::InstalledRecord& record) {
		    dataupdate::WriteLargeRecord(id, record);
	    },
	    dataupdate::FindPreparedReplacement, dataupdate::FinishReplacement,
	    [settings] { return ScheduledBudget([&] { return settings->Get("config", "scheduled_full_packages"); }); },
	    AskPackageSize, [limits](const std::string& link, std::uint64_t bytes) { limits->Restrict(link, bytes); },
	    FindNextRun};
}

dataupdate::InstalledRecord ReadRecorded(const Services& services, const std::string& id) {
	return services.read_record ? services.read_record(id) : services.info->GetDatabaseStatus(id);
}

dataupdate::InstalledRecord ReadInstalled(const Services& services, const std::string& id) {
	dataupdate::InstalledRecord recorded = ReadRecorded(services, id);
	return FindOldPlace(services, id, recorded) ? dataupdate::InstalledRecord() : std::move(recorded);
}

void WriteInstalled(const Services& services, const std::string& id, const dataupdate::InstalledRecord& record) {
	if (services.write_record) {
		services.write_record(id, record);
		return;
	}
	dataupdate::DatabaseStatus status;
	status.data_version = record.data_version;
	status.last_fetch_time = record.last_fetch_time;
	for (std::size_t at = 0; at < record.files.Size(); ++at) {
		if (record.files.HasText(at)) {
			status.file_statuses.emplace(record.files.Name(at), record.files.Text(at));
		}
	}
	services.info->SetDatabaseStatus(id, status);
}

std::optional<std::uintmax_t> InstalledBytes(
    const Services& services, const std::string& id, const std::string& directory) {
	try {
		const ReaderLock lock(id, kFilesSeconds);
		return services.io->GetSize(directory);
	} catch (const CommandError&) {
		return std::nullopt;
	}
}

ExitCode ForEachDatabase(const Services& services, const std::vector<std::string>& ids,
    const DatabaseOperation& operation,
    const std::function<void(const std::string& id, const Failure& failure)>& note) {
	ExitCode code = kDone;
	for (const std::string& id : ids) {
		ExitCode own = kFailed;
		try {
			own = operation(id);
		} catch (...) {
			if (dataupdate::IsInterruptionRequested()) {
				throw;
			}
			const Failure failure = ExplainException(*services.io, id);
			services.terminal.Complain(id + ": " + failure.sentence);
			if (note) {
				note(id, failure);
			}
			own = failure.code;
		}
		code = code == kDone ? own : code;
	}
	return code;
}

} // namespace tarn::ctl
