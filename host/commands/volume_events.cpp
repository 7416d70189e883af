#include "dataupdate/file_lock.h"
#include "dataupdate/interruption.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "dataupdate/volume_handler.h"
#include "host/commands/commands.h"
#include "host/commands/report.h"
#include "host/library/preparation.h"
#include "host/library/volume_content.h"
#include "host/library/volume_move.h"

#include <tarncore/tarncore.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <list>
#include <string>
#include <vector>

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

/**
 * Keeps every update and every reader away while directories move. Whoever waits for a lock here holds no other one: a
 * command that reads one database may need another one to end.
 */
class StandStill {
public:
	StandStill(const Services& services, unsigned long timeout_seconds)
	    : paths_{dataupdate::kUpdateAnyLock},
	      deadline_(Clock::now() + std::chrono::seconds(std::min(timeout_seconds, dataupdate::kLongestWait))) {
		for (const std::string& id : services.config->GetDatabaseIDs()) {
			paths_.push_back(dataupdate::UsingLockPath(id));
		}
		while (!TakeAll()) {
		}
	}

private:
	using Clock = std::chrono::steady_clock;

	unsigned long SecondsLeft() const {
		const auto left = std::chrono::ceil<std::chrono::seconds>(deadline_ - Clock::now()).count();
		return left > 0 ? static_cast<unsigned long>(left) : 0;
	}

	/** Waits for the first lock; when another one is busy, gives all back and makes that the first. */
	bool TakeAll() {
		const unsigned long patience = SecondsLeft();
		auto path = paths_.begin();
		try {
			for (; path != paths_.end(); ++path) {
				locks_.emplace_back(*path, path == paths_.begin() ? patience : 0);
			}
			return true;
		} catch (const dataupdate::UpdateError& error) {
			if (patience == 0 || path == paths_.begin() || CategoryOf(error.what()) != Category::kLocked) {
				throw;
			}
		}
		locks_.clear();
		std::rotate(paths_.begin(), path, std::next(path));
		return false;
	}

	std::vector<std::string> paths_;
	Clock::time_point deadline_;
	std::list<dataupdate::FileLock> locks_;
};

void AnswerToUnmount(
    const Services& services, const Options& options, const MoveOutcome& outcome, const std::string& path) {
	using End = MoveOutcome::End;
	const std::string now = services.config->GetCurVolume();
	const std::string could_not = "The databases could not be moved from " + path + " to " + outcome.target;
	switch (outcome.end) {
	case End::kMoved:
	case End::kCopied: {
		const std::string left = "; what is left of them on " + path + " could not be deleted: see the system log";
		Answer(services, options,
		    "The databases were moved from " + path + " to " + now + (outcome.end == End::kCopied ? left : "") + ".\n",
		    Describe("moved", now));
		return;
	}
	case End::kStayed:
		throw CommandError(kFailed, could_not + "; they are whole on " + path +
		                                ", and no volume is in use until \"tarndbudctl volume mounted " + path +
		                                "\"; the lines of mv before this one and the system log tell why");
	case End::kDivided:
		throw CommandError(kFailed,
		    could_not + "; what is left of them is on both, no volume is in use until \"tarndbudctl init\", and the "
		                "next update after it installs them again; the lines of mv before this one and the system log "
		                "tell why");
	case End::kNoTarget:
		break;
	}
	const std::string unsafe = UnsafeVolumes(path);
	const std::string others = WhyNoOther(services, path);
	Answer(services, options,
	    "The databases stay on " + path +
	        ", and no volume is in use: no other one is suitable. They are not updated "
	        "until a volume is mounted.\n" +
	        (others.empty() ? "" : others + ".\n") +
	        (unsafe.empty() ? "" : "What is not safe is not used: " + unsafe + ".\n"),
	    Describe("stayed", ""));
}

/** Why a directory cannot be read; 0 when it can. */
int ReadError(const std::string& directory) {
	std::error_code error;
	const std::filesystem::directory_iterator entries(directory, error);
	return error.value();
}

bool IsOfDevice(int error) {
	constexpr int kErrors[] = {EIO, ENXIO, ENODEV, ENOTCONN, ESTALE, EUCLEAN, EREMOTEIO, ESHUTDOWN, ETIMEDOUT};
	return std::find(std::begin(kErrors), std::end(kErrors), error) != std::end(kErrors);
}

/**
 * Whether a volume went without notice, and did not just become unknown. Throws CommandError when nobody can tell.
 *
 * @param error  why it is not available
 */
bool IsGone(const Services& services, const std::string& volume, int error) {
	const int databases = ReadError(dataupdate::VolumeHandler(services.config).GetMainDirPath(volume));
	if (IsOfDevice(databases) || IsOfDevice(ReadError(volume))) {
		return true;
	}
	if (error != ENODEV) {
		throw CommandError(kFailed, "It could not be found out whether " + volume +
		                                " is available, so nothing was changed (" + std::strerror(error) +
		                                "); see the system log");
	}
	return databases == ENOENT || databases == ENOTDIR;
}

/** A volume that is gone has nothing to move, and the library would move what lies below its mount point. */
void GiveUp(const Services& services, const Options& options, const std::string& path) {
	services.config->SetCurVolume("");
	Answer(services, options,
	    path +
	        " is not available and was given up, so no volume is in use; \"tarndbudctl init\" chooses another one.\n",
	    Describe("given up", ""));
}

/** Says so when a volume is in use, which then nothing else can become. */
bool IsAnyInUse(const Services& services, const Options& options) {
	const std::string now = services.config->GetCurVolume();
	if (!now.empty()) {
		Answer(services, options, "The databases stay on " + now + ".\n", Describe("ignored", now));
	}
	return !now.empty();
}

/** Says so when the end of a volume does not matter. */
bool IsOtherInUse(const Services& services, const Options& options, const std::string& path) {
	const std::string now = services.config->GetCurVolume();
	if (now != path) {
		Answer(services, options, "The databases are not on " + path + ".\n", Describe("ignored", now));
	}
	return now != path;
}

void AnswerUnsuitable(const Services& services, const Options& options, const std::string& path) {
	const std::string problem = VolumeProblem(path);
	Json::Value object = Describe("unsuitable", "");
	if (problem.empty()) {
		Answer(services, options, path + " is not suitable: " + WhyUnsuitable(services, path) + ".\n", object);
		return;
	}
	object["problem"] = problem;
	Answer(services, options,
	    path + " is not suitable: " + problem +
	        "; its root and its @tmp and @database must be directories of root that nobody else can write.\n",
	    object);
}

void DeclareVolumeMounted(CLI::App& app, Options& options) {
	app.add_option("PATH", options.path, "Mount path of the volume")->required();
	DeclareJsonObject(app, options);
}

ExitCode RunVolumeMounted(const Services& services, const Options& options) {
	const std::string path = WithoutSlash(options.path);
	if (IsAnyInUse(services, options)) {
		return kDone;
	}
	if (!services.is_available(path)) {
		throw CommandError(kFailed, path + " is no volume: " + WhyNoVolume(path));
	}
	// None is in use while databases move, either.
	const dataupdate::FileLock still(dataupdate::kUpdateAnyLock, dataupdate::kLockTimeout);
	const dataupdate::InterruptionShield shield;
	if (IsAnyInUse(services, options)) {
		return kDone; // Another process was faster.
	}
	const dataupdate::VolumeHandler handler(services.config);
	Json::Value adopted = Describe("adopted", path);
	const std::string missing = Adopt(
	    services, [&] { handler.MountVolumeEvent(path); }, adopted);
	const std::string now = services.config->GetCurVolume();
	if (now.empty()) {
		AnswerUnsuitable(services, options, path);
		return kDone;
	}
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
	if (IsOtherInUse(services, options, path)) {
		return kDone;
	}
	const StandStill still(services, options.timeout_seconds);
	const dataupdate::InterruptionShield shield;
	if (IsOtherInUse(services, options, path)) {
		return kDone; // Another process was faster.
	}
	if (!services.is_available(path) && IsGone(services, path, TLIBCErrGet())) {
		GiveUp(services, options, path);
		return kDone;
	}
	// Whatever others have put there would be as good as installed elsewhere.
	RequireSafeVolume(path);
	AnswerToUnmount(services, options, MoveAway(services, path), path);
	return kDone;
}

} // namespace

const Command kVolumeMountedCommand = {"volume mounted", "Adopt a volume that was mounted, when none is in use",
    "Does nothing when a volume is in use, or when this volume is not suitable. Names the databases that are missing "
    "or\n"
    "incomplete on the volume; the next update installs them again.",
    {kLocked}, true, false, DeclareVolumeMounted, RunVolumeMounted};

const Command kVolumeUnmountingCommand = {"volume unmounting",
    "Move the databases away from a volume that is about to be unmounted",
    "Moves them to the first other suitable volume. Without such a volume they stay, and are not updated until a "
    "volume is\n"
    "mounted. First waits for a running update and for readers. A volume that is not available is no longer\n"
    "used.",
    {kLocked}, true, false, DeclareVolumeUnmounting, RunVolumeUnmounting};

} // namespace tarn::ctl
