#include "commands.h"
#include "databases.h"
#include "volume_content.h"
#include "volume_move.h"

#include <dataupdate/file_lock.h>
#include <dataupdate/interruption.h>
#include <dataupdate/paths.h>
#include <dataupdate/volume_handler.h>

#include <CLI/CLI.hpp>

#include <list>

namespace tarn::ctl {

namespace {

/** Mount paths are told without a slash at their end; shells complete them with one. */
std::string WithoutSlash(std::string path) {
	while (path.size() > 1 && path.back() == '/') {
		path.pop_back();
	}
	return path;
}

Json::Value Describe(const std::string& result, const std::string& volume) {
	Json::Value object(Json::objectValue);
	object["result"] = result;
	object["volume"] = volume.empty() ? Json::Value() : Json::Value(volume);
	return object;
}

/** Keeps every update and every reader away while directories move. Readers come last, as for an update. */
class StandStill {
public:
	StandStill(const Services& services, unsigned long timeout_seconds) {
		locks_.emplace_back(dataupdate::kUpdateAnyLock, timeout_seconds);
		for (const std::string& id : services.config->GetDatabaseIDs()) {
			locks_.emplace_back("/run/data_update/using_" + id + ".lock", timeout_seconds);
		}
	}

private:
	std::list<dataupdate::FileLock> locks_;
};

void AnswerToUnmount(const Services& services, const Options& options, const VolumeMove& move,
    VolumeMove::Outcome outcome, const std::string& path) {
	using Outcome = VolumeMove::Outcome;
	const std::string now = services.config->GetCurVolume();
	const std::string could_not = "The databases could not be moved from " + path + " to " + move.Target();
	switch (outcome) {
	case Outcome::kMoved:
		Answer(
		    services, options, "The databases were moved from " + path + " to " + now + ".\n", Describe("moved", now));
		return;
	case Outcome::kCopied:
		Answer(services, options,
		    "The databases were moved from " + path + " to " + now + "; what is left of them on " + path +
		        " could not be deleted: see the system log.\n",
		    Describe("moved", now));
		return;
	case Outcome::kStayed:
		throw CommandError(
		    kFailed, could_not + "; they are whole on " + path +
		                 ", and no volume is in use; the lines of mv before this one and the system log tell why");
	case Outcome::kDivided:
		throw CommandError(kFailed,
		    could_not + "; what is left of them is on both, no volume is in use, and the next "
		                "update installs them anew; the lines of mv before this one and the system log tell why");
	case Outcome::kNoTarget:
		break;
	}
	if (!now.empty()) {
		Answer(services, options, "The databases are on " + now + " already.\n", Describe("ignored", now));
		return;
	}
	Answer(services, options,
	    "The databases stay on " + path +
	        ", and no volume is in use: no other one is suitable. They are not updated "
	        "until a volume is mounted.\n",
	    Describe("given up", ""));
}

/** A volume that went without notice has nothing to move, and the library would move what lies below its mount point.
 */
void GiveUp(const Services& services, const Options& options, const std::string& path) {
	if (services.config->GetCurVolume() == path) {
		services.config->SetCurVolume("");
	}
	Answer(services, options,
	    path +
	        " is not available and was given up, so no volume is in use; \"tarndbudctl init\" chooses another one.\n",
	    Describe("given up", ""));
}

} // namespace

void DeclareVolumeMounted(CLI::App& app, Options& options) {
	app.add_option("PATH", options.path, "Mount path of the volume")->required();
	DeclareJsonObject(app, options);
}

ExitCode RunVolumeMounted(const Services& services, const Options& options) {
	const std::string path = WithoutSlash(options.path);
	const std::string before = services.config->GetCurVolume();
	if (!before.empty()) {
		Answer(services, options, "The databases stay on " + before + ".\n", Describe("ignored", before));
		return kDone;
	}
	if (!services.is_available(path)) {
		throw CommandError(
		    kFailed, path + " is no volume: it is not mounted, or not listed in /usr/tarn/etc/volumes.conf");
	}
	// None is in use while databases move, either.
	const dataupdate::FileLock still(dataupdate::kUpdateAnyLock, dataupdate::kLockTimeout);
	const dataupdate::InterruptionShield shield;
	dataupdate::VolumeHandler(services.config).MountVolumeEvent(path);
	const std::string now = services.config->GetCurVolume();
	if (!now.empty() && now != path) {
		Answer(services, options, "The databases stay on " + now + ".\n", Describe("ignored", now));
		return kDone;
	}
	if (now.empty()) {
		Answer(services, options,
		    path + " is not suitable: it is excluded, cannot be written or has too little space; see the system log.\n",
		    Describe("unsuitable", ""));
		return kDone;
	}
	Json::Value adopted = Describe("adopted", now);
	const std::string missing = TakeOver(services, now, adopted);
	Answer(services, options, "The databases are on " + now + " from now on.\n" + missing, adopted);
	return kDone;
}

void DeclareVolumeUnmounting(CLI::App& app, Options& options) {
	app.add_option("PATH", options.path, "Mount path of the volume")->required();
	DeclareTimeout(app, options, "Seconds to wait for an update, and for the readers of each database, to end");
	DeclareJsonObject(app, options);
}

ExitCode RunVolumeUnmounting(const Services& services, const Options& options) {
	const std::string path = WithoutSlash(options.path);
	const std::string before = services.config->GetCurVolume();
	if (before != path) {
		Answer(services, options, "The databases are not on " + path + ".\n", Describe("ignored", before));
		return kDone;
	}
	const StandStill still(services, options.timeout_seconds);
	const dataupdate::InterruptionShield shield;
	if (!services.is_available(path)) {
		GiveUp(services, options, path);
		return kDone;
	}
	VolumeMove move(services, path);
	const VolumeMove::Outcome outcome = move.Run();
	AnswerToUnmount(services, options, move, outcome, path);
	return kDone;
}

} // namespace tarn::ctl
