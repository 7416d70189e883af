#include "commands.h"
#include "databases.h"
#include "text.h"

#include <dataupdate/file_lock.h>
#include <dataupdate/interruption.h>
#include <dataupdate/paths.h>
#include <dataupdate/volume_handler.h>
#include <tarnsdk/volume.h>

#include <CLI/CLI.hpp>

#include <list>
#include <map>
#include <memory>

namespace tarn::ctl {

namespace {

/** Lets it be seen whether a volume to move to was found; what the library does with it is only logged. */
class SeenVolumeHandler : public dataupdate::VolumeHandler {
public:
	using VolumeHandler::VolumeHandler;

	std::string FindSuitableVolume(std::string exclude) const override {
		found_ = VolumeHandler::FindSuitableVolume(std::move(exclude));
		return found_;
	}
	const std::string& Found() const { return found_; }

private:
	mutable std::string found_;
};

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

/** Records name files by absolute paths as well, which would be missed at the old place. */
void MoveRecords(const Services& services, const std::string& from, const std::string& to) {
	const std::string prefix = from + "/";
	for (const std::string& id : services.config->GetDatabaseIDs()) {
		dataupdate::DatabaseStatus status = services.info->GetDatabaseStatus(id);
		std::map<std::string, dataupdate::FileStatus> moved;
		for (const auto& [name, file] : status.file_statuses) {
			moved.emplace(StartsWith(name, prefix) ? to + name.substr(from.size()) : name, file);
		}
		if (moved != status.file_statuses) {
			status.file_statuses = std::move(moved);
			services.info->SetDatabaseStatus(id, status);
		}
	}
}

void AnswerToUnmount(
    const Services& services, const Options& options, const SeenVolumeHandler& handler, const std::string& path) {
	const std::string now = services.config->GetCurVolume();
	if (!now.empty() && handler.Found().empty()) {
		Answer(services, options, "The databases are on " + now + " already.\n", Describe("ignored", now));
		return;
	}
	if (!now.empty()) {
		MoveRecords(services, handler.GetMainDirPath(path), handler.GetMainDirPath(now));
		Answer(
		    services, options, "The databases were moved from " + path + " to " + now + ".\n", Describe("moved", now));
		return;
	}
	if (!handler.Found().empty()) {
		throw CommandError(
		    kFailed, "The databases could not be moved from " + path + " to " + handler.Found() +
		                 "; what is left of them is on both, and no volume is in use: see the system log");
	}
	Answer(services, options,
	    "The databases stay on " + path +
	        ", and no volume is in use: no other one is suitable. They are not updated "
	        "until a volume is mounted.\n",
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
	if (TARNMountVolInfoGet(path.c_str(), std::make_unique<TARNMountVolInfo>().get()) != 0) {
		throw CommandError(
		    kFailed, path + " is no volume: it is not mounted, or not listed in /usr/tarn/etc/volumes.conf");
	}
	const dataupdate::InterruptionShield shield;
	dataupdate::VolumeHandler(services.config).MountVolumeEvent(path);
	const std::string now = services.config->GetCurVolume();
	if (now.empty()) {
		Answer(services, options,
		    path + " is not suitable: it is excluded, cannot be written or has too little space; see the system log.\n",
		    Describe("unsuitable", ""));
		return kDone;
	}
	Answer(services, options, "The databases are on " + now + " from now on.\n", Describe("adopted", now));
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
	const SeenVolumeHandler handler(services.config);
	handler.UnmountVolumeEvent(path);
	AnswerToUnmount(services, options, handler, path);
	return kDone;
}

} // namespace tarn::ctl
