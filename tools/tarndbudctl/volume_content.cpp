#include "volume_content.h"

#include "failure.h"
#include "text.h"
#include "whole_file.h"

#include <dataupdate/update_error.h>
#include <dataupdate/updater.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tarn::ctl {

namespace fs = std::filesystem;

using dataupdate::DatabaseStatus;
using dataupdate::FileStatus;

namespace {

constexpr char kRecords[] = "/var/lib/data_update/";
constexpr char kMainDir[] = "/@database/autoupdate/";

std::string MarkPath(const std::string& id) {
	return kRecords + id + "/replacing";
}

/** One whose configuration cannot be read has no files that could be found. */
bool LiesOnVolumes(const Services& services, const std::string& id) {
	try {
		return services.config->GetDatabaseConfig(id)->GetRootDirectory() != "/";
	} catch (const dataupdate::UpdateError&) {
		return false;
	}
}

/** Whether the files are there. A forced version has no recorded files; then there must be any at all. */
bool IsThere(const DatabaseStatus& status, const std::string& install_prefix) {
	std::error_code error;
	return !fs::is_empty(install_prefix, error) && !error &&
	       dataupdate::CheckStatus(status.file_statuses, install_prefix);
}

} // namespace

std::optional<Content> ContentBelow(const std::string& directory) {
	Content content;
	std::error_code error;
	fs::recursive_directory_iterator entries(directory, error);
	for (; !error && entries != fs::recursive_directory_iterator(); entries.increment(error)) {
		const fs::file_type type = entries->symlink_status(error).type();
		const uintmax_t size = !error && type == fs::file_type::regular ? entries->file_size(error) : 0;
		content[entries->path().lexically_relative(directory)] = {type, size};
		if (error) {
			return std::nullopt;
		}
	}
	return error && error != std::errc::no_such_file_or_directory ? std::nullopt : std::optional(content);
}

std::vector<std::string> InstalledOnVolumes(const Services& services) {
	std::vector<std::string> installed;
	for (const std::string& id : services.config->GetDatabaseIDs()) {
		if (LiesOnVolumes(services, id) && services.info->GetDatabaseStatus(id).data_version != -1) {
			installed.push_back(id);
		}
	}
	return installed;
}

bool MarkUnfinished(const std::string& id) {
	if (fs::exists(MarkPath(id))) {
		return false;
	}
	WriteWholeFile(MarkPath(id), "");
	return true;
}

void Unmark(const std::string& id) {
	unlink(MarkPath(id).c_str());
}

void SyncFileSystemOf(const std::string& path) {
	const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
	const bool good = fd >= 0 && syncfs(fd) == 0;
	const int error = errno;
	if (fd >= 0) {
		close(fd);
	}
	if (!good) {
		throw CommandError(kFailed, "Fail to sync " + path + ": " + std::strerror(error));
	}
}

void LetRecordsFollow(const Services& services, const std::string& volume) {
	for (const std::string& id : services.config->GetDatabaseIDs()) {
		DatabaseStatus status = services.info->GetDatabaseStatus(id);
		const std::string place = kMainDir + id + "/";
		std::map<std::string, FileStatus> moved;
		for (const auto& [name, file] : status.file_statuses) {
			const size_t at = StartsWith(name, "/") ? name.find(place) : std::string::npos;
			moved.emplace(at == std::string::npos ? name : volume + name.substr(at), file);
		}
		if (moved != status.file_statuses) {
			status.file_statuses = std::move(moved);
			// Not by the library's way, which takes the mark of an unfinished replacement away.
			services.io->WriteJson(kRecords + id + "/version.json", DatabaseStatus::ToJson(status));
		}
	}
}

std::string TakeOver(const Services& services, const std::string& volume, Json::Value& answer) {
	LetRecordsFollow(services, volume);
	Json::Value incomplete(Json::arrayValue);
	std::string names;
	for (const std::string& id : InstalledOnVolumes(services)) {
		const std::string prefix = services.config->GetDatabaseConfig(id)->GetInstallPrefix();
		if (!IsThere(services.info->GetDatabaseStatus(id), prefix)) {
			MarkUnfinished(id);
			incomplete.append(id);
			names += (names.empty() ? "" : ", ") + id;
		}
	}
	answer["incomplete"] = incomplete;
	return names.empty() ? "" : "Not whole there, and to be installed anew by the next update: " + names + "\n";
}

} // namespace tarn::ctl
