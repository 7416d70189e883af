#include "base/file_io.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/interruption.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "dataupdate/volume_handler.h"
#include "host/commands/commands.h"
#include "host/commands/report.h"
#include "host/library/inspection.h"
#include "host/library/preparation.h"
#include "host/library/services.h"
#include "host/library/volume_content.h"

#include <filesystem>
#include <string>

namespace tarn::ctl {

namespace {

/** Where no volume is suitable, those that would be if others could not write to them are worth telling. */
std::string FindVolume(const dataupdate::VolumeHandler& handler) {
	try {
		return handler.FindSuitableVolume("");
	} catch (const dataupdate::UpdateError& error) {
		const std::string unsafe = UnsafeVolumes("");
		if (unsafe.empty()) {
			throw;
		}
		throw CommandError(kFailed, std::string("No volume is suitable, and what is not safe is not used: ") + unsafe +
		                                "; a volume's root and its @tmp and @database must be directories of root that "
		                                "nobody else can write");
	}
}

/** Does what the initialisation does, which logs its failures, and lets the failure be seen. */
void ChooseVolume(const Services& services) {
	// As InitService() does, which writes the settings in place: a loss of power might leave none.
	const dataupdate::VolumeHandler handler(services.config);
	handler.InitVolume();
	if (!services.config->GetCurVolume().empty()) {
		return;
	}
	const std::string volume = FindVolume(handler);
	handler.CreateDirectories(handler.GetMainDirPath(volume));
	services.config->SetCurVolume(volume);
}

/** Returns what there is to say of databases that the volume lacks. */
std::string AdoptVolume(const Services& services, Json::Value& answer) {
	// None is in use while databases move, either.
	const dataupdate::FileLock still(dataupdate::kUpdateAnyLock, dataupdate::kLockTimeout);
	const dataupdate::InterruptionShield shield;
	if (!services.config->GetCurVolume().empty()) {
		return "";
	}
	return Adopt(
	    services, [&] { ChooseVolume(services); }, answer);
}

/** Lock files don't survive a restart, and readers without root's rights cannot make them. */
void PrepareForReaders(const Services& services) {
	for (const std::string& id : services.config->GetDatabaseIDs()) {
		if (IsInstalled(services, id) && !MakeReaderLockFile(id)) {
			throw CommandError(
			    kFailed, "The lock file for readers of " + id + " cannot be made in " + dataupdate::kLockDirectory);
		}
	}
}

/** Of a run that was killed, or that the power left. */
void RemoveLeftFiles(const Services& services) {
	RemoveLeftDrafts(std::filesystem::path(dataupdate::kServiceOverride).parent_path());
	for (const std::string& id : services.config->GetDatabaseIDs()) {
		RemoveLeftDrafts(dataupdate::StatePath(id, ""));
	}
}

ExitCode Run(const Services& services, const Options& options) {
	TellUnknownSettings(services);
	PrepareForReaders(services);
	RemoveLeftFiles(services);
	Json::Value object(Json::objectValue);
	const std::string missing = services.config->GetCurVolume().empty() ? AdoptVolume(services, object) : "";
	const std::string volume = services.config->GetCurVolume();
	RequireSafeVolume(volume);
	ClearTemporaryArea(services);
	object["volume"] = volume;
	Answer(services, options, "The databases are on " + volume + ".\n" + missing, object);
	return kDone;
}

} // namespace

const Command kInitCommand = {"init", "Choose the storage volume, once when the service starts",
    "A volume that was chosen before is kept. Fails when no volume is suitable. Makes the lock files of the installed\n"
    "databases, so that readers without root's rights can take the locks.",
    {kLocked}, true, false, DeclareJsonObject, Run};

} // namespace tarn::ctl
