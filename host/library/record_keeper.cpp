#include "host/library/record_keeper.h"

#include "dataupdate/installation.h"
#include "dataupdate/interruption.h"
#include "host/library/inspection.h"

#include <syslog.h>

#include <exception>
#include <filesystem>
#include <utility>
#include <vector>

namespace tarn::ctl {

using dataupdate::DatabaseStatus;

namespace {

/** What the record is for has been done, or can be done without it. */
void LogLoss(const std::string& id, const std::exception& error) {
	syslog(LOG_WARNING, "The files of '%s' could not be recorded: %s", id.c_str(), error.what());
}

} // namespace

void RecordKeeper::Mend(int installed_version) {
	if (installed_version != -1 && IsWhole() && !SeemsCurrent(id_, installed_version) &&
	    !Prepare(services_.info->GetDatabaseStatus(id_)) && before_) {
		ConfirmInstalledFiles(id_);
	}
}

void RecordKeeper::PrepareUpdate(const DatabaseStatus& status) {
	if (!before_ && status.data_version != -1 && IsWhole()) {
		Prepare(status);
	}
}

void RecordKeeper::PrepareForced() {
	try {
		const DatabaseStatus status = services_.info->GetDatabaseStatus(id_);
		if (status.data_version != -1 && IsWhole()) {
			Prepare(status);
		}
		identities_ = IdentitiesBelow(InstallPrefix());
	} catch (const std::exception& error) {
		if (dataupdate::IsInterruptionRequested()) {
			throw;
		}
		before_.reset();
		LogLoss(id_, error);
	}
}

bool RecordKeeper::FindsDamage(const DatabaseStatus& status) {
	const std::string prefix = InstallPrefix();
	if (status.data_version == -1 || !IsWhole()) {
		return false;
	}
	const bool is_new = Prepare(status);
	// A fix replaces everything, so nothing is kept of what was before.
	const std::optional<InstalledFiles> record = std::exchange(before_, std::nullopt);
	if (!record || (is_new && record->is_from_disk)) {
		return false;
	}
	const std::vector<std::string> unknown = FindUnknownFiles(*record, prefix);
	for (const std::string& name : unknown) {
		syslog(LOG_ERR, "File %s/%s is unknown", prefix.c_str(), name.c_str());
	}
	return !unknown.empty() || !FindBadFiles(*record, status, prefix).empty();
}

void RecordKeeper::KeepFixed(const DatabaseStatus& status) {
	Write([&] { return WholeRecord(status, InstallPrefix(), true); });
}

void RecordKeeper::KeepForced(const DatabaseStatus& status) {
	Write([&] {
		return before_ ? CarryThroughForced(std::move(*before_), identities_, status.data_version, InstallPrefix())
		               : RebuiltRecord(status, InstallPrefix());
	});
}

void RecordKeeper::KeepUpdated(const DatabaseStatus& status, const dataupdate::UpdateResult& result) {
	if (result.is_full) {
		KeepFixed(status);
		return;
	}
	Write([&] {
		return before_ ? CarryThroughDiff(std::move(*before_), result.files, status, InstallPrefix())
		               : RebuiltRecord(status, InstallPrefix());
	});
}

std::string RecordKeeper::InstallPrefix() const {
	return services_.config->GetDatabaseConfig(id_)->GetInstallPrefix();
}

bool RecordKeeper::IsWhole() const {
	std::error_code error;
	return !dataupdate::IsReplacementMarked(id_) &&
	       !services_.config->GetDatabaseConfig(id_)->GetRootDirectory().empty() &&
	       std::filesystem::is_directory(InstallPrefix(), error);
}

bool RecordKeeper::Prepare(const DatabaseStatus& status) {
	const std::string prefix = InstallPrefix();
	before_ = ReadCredibleFiles(id_, status, prefix);
	if (before_) {
		return false;
	}
	try {
		before_ = RebuiltRecord(status, prefix);
		WriteInstalledFiles(id_, *before_);
		syslog(LOG_NOTICE, "The record of the files of '%s' was made again from %s", id_.c_str(),
		    before_->is_from_disk ? "what is on the disk" : "the record of its full package");
	} catch (const std::exception& error) {
		if (dataupdate::IsInterruptionRequested()) {
			throw;
		}
		LogLoss(id_, error);
	}
	return true;
}

template<typename Make>
void RecordKeeper::Write(const Make& make) const {
	try {
		WriteInstalledFiles(id_, make());
	} catch (const std::exception& error) {
		LogLoss(id_, error);
	}
}

} // namespace tarn::ctl
