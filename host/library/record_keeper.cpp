#include "host/library/record_keeper.h"

#include "dataupdate/installation.h"
#include "dataupdate/interruption.h"
#include "host/library/inspection.h"
#include "host/library/listed_files.h"

#include <syslog.h>

#include <exception>
#include <filesystem>
#include <vector>

namespace tarn::ctl {

using dataupdate::InstalledRecord;

namespace {

/** What the record is for has been done, or can be done without it. */
void LogLoss(const std::string& id, const std::exception& error) {
	syslog(LOG_WARNING, "The files of '%s' could not be recorded: %s", id.c_str(), error.what());
}

} // namespace

void RecordKeeper::Mend(int installed_version) {
	if (installed_version != -1 && IsWhole() && !SeemsCurrent(id_, installed_version) &&
	    !Prepare(ReadInstalled(services_, id_)) && before_) {
		ConfirmInstalledFiles(id_);
	}
}

void RecordKeeper::PrepareUpdate() {
	if (!before_ && IsWhole()) {
		const InstalledRecord listed = ReadInstalled(services_, id_);
		if (listed.data_version != -1) {
			Prepare(listed);
		}
	}
	Forget();
}

std::optional<std::string> RecordKeeper::KnownDigest(const std::string& name) {
	RecallBefore();
	const std::optional<InstalledFile> file = before_ ? before_->files.Find(name) : std::nullopt;
	return file && file->link_target.empty() ? std::optional(file->sha384_digest) : std::nullopt;
}

void RecordKeeper::Forget() {
	can_be_recalled_ = before_.has_value() && is_on_disk_;
	if (can_be_recalled_) {
		before_.reset();
	}
}

void RecordKeeper::PrepareForced(const std::function<InstalledRecord()>& read_installed) {
	try {
		const InstalledRecord listed = read_installed();
		if (listed.data_version != -1 && IsWhole()) {
			Prepare(listed);
		}
		identities_ = IdentitiesBelow(InstallPrefix());
		Forget();
	} catch (const std::exception& error) {
		if (dataupdate::IsInterruptionRequested()) {
			throw;
		}
		before_.reset();
		LogLoss(id_, error);
	}
}

bool RecordKeeper::FindsDamage(const InstalledRecord& listed) {
	if (listed.data_version == -1) {
		return false;
	}
	const std::string prefix = InstallPrefix();
	if (!dataupdate::CheckListing(dataupdate::ListingOf(listed.files), prefix)) {
		return true;
	}
	if (!IsWhole()) {
		return false;
	}
	const bool is_new = Prepare(listed);
	// A fix replaces everything, so nothing is kept of what was before.
	const std::optional<InstalledFiles> record = std::exchange(before_, std::nullopt);
	if (!record || (is_new && record->is_from_disk)) {
		return false;
	}
	const std::vector<std::string> unknown = FindUnknownFiles(*record, prefix);
	for (const std::string& name : unknown) {
		syslog(LOG_ERR, "File %s/%s is unknown", prefix.c_str(), name.c_str());
	}
	return !unknown.empty() || !FindBadFiles(*record, listed, prefix).empty();
}

void RecordKeeper::RecallBefore() {
	if (std::exchange(can_be_recalled_, false)) {
		before_ = ReadInstalledFiles(id_);
	}
}

void RecordKeeper::RecallUnfinished() {
	std::optional<InstalledFiles> record = ReadInstalledFiles(id_);
	if (record && Agree(*record, ReadInstalled(services_, id_), InstallPrefix())) {
		before_ = std::move(record);
	}
}

void RecordKeeper::KeepForced(const InstalledRecord& listed) {
	Write([&] {
		return before_ ? CarryThroughForced(
		                     *std::move(before_), std::move(identities_), listed.data_version, InstallPrefix())
		               : RebuiltRecord(listed, InstallPrefix());
	});
}

void RecordKeeper::KeepUpdated(InstalledRecord listed, bool is_full) {
	if (is_full) {
		before_.reset();
		Write([&] { return WholeRecord(std::move(listed), InstallPrefix(), true); });
		return;
	}
	Write([&] {
		return before_ ? CarryThroughDiff(*std::move(before_), listed, InstallPrefix())
		               : RebuiltRecord(listed, InstallPrefix());
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

bool RecordKeeper::Prepare(const InstalledRecord& listed) {
	const std::string prefix = InstallPrefix();
	before_ = ReadCredibleFiles(id_, listed, prefix);
	is_on_disk_ = before_.has_value();
	if (before_) {
		return false;
	}
	try {
		before_ = RebuiltRecord(listed, prefix);
		WriteInstalledFiles(id_, *before_);
		is_on_disk_ = true;
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
