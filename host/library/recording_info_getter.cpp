#include "host/library/recording_info_getter.h"

#include "dataupdate/installation.h"
#include "dataupdate/interruption.h"
#include "host/library/file_check.h"

#include <syslog.h>

#include <exception>
#include <filesystem>
#include <utility>

namespace tarn::ctl {

using dataupdate::DatabaseStatus;

namespace {

/** What the record is for has been done, or can be done without it. */
void TellOfLoss(const std::string& id, const std::exception& error) {
	syslog(LOG_WARNING, "The files of '%s' could not be recorded: %s", id.c_str(), error.what());
}

/** Whether the files of a database are there to be looked at: its volume may be gone. */
bool IsThere(const Services& services, const std::string& id, const std::string& install_prefix) {
	std::error_code error;
	return !services.config->GetDatabaseConfig(id)->GetRootDirectory().empty() &&
	       std::filesystem::is_directory(install_prefix, error);
}

/** Whether anything is not as the record of all files has it, which is told to the system log. */
bool IsAnythingWrong(const InstalledFiles& record, const DatabaseStatus& listed, const std::string& install_prefix) {
	const std::vector<std::string> unknown = FindUnknownFiles(record, install_prefix);
	for (const std::string& name : unknown) {
		syslog(LOG_ERR, "File %s/%s is unknown", install_prefix.c_str(), name.c_str());
	}
	return !unknown.empty() || !FindBadFiles(record, listed, install_prefix).empty();
}

} // namespace

RecordingInfoGetter::RecordingInfoGetter(
    const Services& services, std::function<void(const std::string& id)> check_volume, Change change)
    : NotingInfoGetter(services.info, check_volume, services.packages),
      services_(services),
      check_volume_(std::move(check_volume)),
      change_(change) {}

dataupdate::RemoteInfo RecordingInfoGetter::GetRemoteInfo(const std::string& id) const {
	dataupdate::RemoteInfo remote = NotingInfoGetter::GetRemoteInfo(id);
	if (change_ == Change::kUpdate) {
		Prepare(id, NotingInfoGetter::GetDatabaseStatus(id));
	}
	if (change_ == Change::kForced) {
		PrepareForced(id);
	}
	return remote;
}

DatabaseStatus RecordingInfoGetter::GetDatabaseStatus(const std::string& id) const {
	DatabaseStatus status = NotingInfoGetter::GetDatabaseStatus(id);
	if (change_ != Change::kFix) {
		return status;
	}
	check_volume_(id);
	const bool is_new = Prepare(id, status);
	if (before_ && !(is_new && before_->is_from_disk) && IsAnythingWrong(*before_, status, InstallPrefix(id))) {
		status.data_version = -1;
	}
	before_.reset(); // A fix replaces everything.
	return status;
}

void RecordingInfoGetter::SetDatabaseStatus(const std::string& id, const DatabaseStatus& status) const {
	const dataupdate::InterruptionShield shield;
	DropInstalledFiles(id);
	NotingInfoGetter::SetDatabaseStatus(id, status);
	try {
		WriteInstalledFiles(id, MakeRecord(id, status));
	} catch (const std::exception& error) {
		TellOfLoss(id, error);
	}
}

/** Reads the record of what is installed, and makes it again if it is lost, which returns true. */
bool RecordingInfoGetter::Prepare(const std::string& id, const DatabaseStatus& status) const {
	before_.reset();
	identities_.clear();
	const std::string prefix = InstallPrefix(id);
	if (status.data_version == -1 || dataupdate::IsReplacementMarked(id) || !IsThere(services_, id, prefix)) {
		return false;
	}
	before_ = ReadCredibleFiles(id, status, prefix);
	if (before_) {
		return false;
	}
	try {
		before_ = RebuiltRecord(status, prefix);
		WriteInstalledFiles(id, *before_);
		syslog(LOG_NOTICE, "The record of the files of '%s' was made again from %s", id.c_str(),
		    before_->is_from_disk ? "what is on the disk" : "the record of its full package");
	} catch (const std::exception& error) {
		if (dataupdate::IsInterruptionRequested()) {
			throw;
		}
		TellOfLoss(id, error);
	}
	return true;
}

/** A forced installation is possible over whatever is recorded and lies there. */
void RecordingInfoGetter::PrepareForced(const std::string& id) const {
	try {
		Prepare(id, NotingInfoGetter::GetDatabaseStatus(id));
		identities_ = IdentitiesBelow(InstallPrefix(id));
	} catch (const std::exception& error) {
		if (dataupdate::IsInterruptionRequested()) {
			throw;
		}
		before_.reset();
		TellOfLoss(id, error);
	}
}

InstalledFiles RecordingInfoGetter::MakeRecord(const std::string& id, const DatabaseStatus& status) const {
	const std::string prefix = InstallPrefix(id);
	switch (change_) {
	case Change::kFix:
		return WholeRecord(status, prefix, true);
	case Change::kForced:
		return before_ ? CarryThroughForced(std::move(*before_), identities_, status.data_version, prefix)
		               : RebuiltRecord(status, prefix);
	case Change::kUpdate:
		break;
	}
	return RecordOfUpdate(id, status);
}

InstalledFiles RecordingInfoGetter::RecordOfUpdate(const std::string& id, const DatabaseStatus& status) const {
	const std::string prefix = InstallPrefix(id);
	const std::optional<UpdateNote> note = services_.update_notes ? *services_.update_notes : std::nullopt;
	if (note && note->id == id && note->is_full) {
		return WholeRecord(status, prefix, true);
	}
	return note && note->id == id && before_ ? CarryThroughDiff(std::move(*before_), note->files, status, prefix)
	                                         : RebuiltRecord(status, prefix);
}

std::string RecordingInfoGetter::InstallPrefix(const std::string& id) const {
	return services_.config->GetDatabaseConfig(id)->GetInstallPrefix();
}

} // namespace tarn::ctl
