#include "base/text.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "host/commands/commands.h"
#include "host/commands/report.h"
#include "host/library/inspection.h"
#include "host/library/install_place.h"
#include "host/library/preparation.h"
#include "host/library/services.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

namespace tarn::ctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostFilesShown = 20;
constexpr std::size_t kLongestPath = 4096;

std::string FormatFiles(const std::vector<BadFile>& files) {
	std::string text;
	for (std::size_t i = 0; i < std::min(files.size(), kMostFilesShown); ++i) {
		text += "\n\t" + PlainAscii(files[i].path, kLongestPath) + " " + files[i].reason;
	}
	if (files.size() > kMostFilesShown) {
		text += "\n\tand " + std::to_string(files.size() - kMostFilesShown) + " more";
	}
	return text;
}

dataupdate::FileLock HoldOffUpdates(const std::string& path, unsigned long timeout_seconds) {
	try {
		return {path, timeout_seconds};
	} catch (const dataupdate::UpdateError& error) {
		if (CategoryOf(error.what()) != Category::kLocked) {
			throw;
		}
		throw CommandError(kLocked, "The database is being updated; check it later");
	}
}

/** Looks again when anything is bad: an update records its files' digests after it has let go of the files. */
Findings LookThoroughly(const Services& services, const std::string& id, unsigned long timeout_seconds) {
	const Clock::time_point begin = Clock::now();
	const auto left = [&] {
		const auto passed = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin).count();
		return timeout_seconds - std::min(timeout_seconds, static_cast<unsigned long>(passed));
	};
	std::optional<Findings> found;
	{
		// None is needed, or to be had, before anything was replaced.
		const ReaderLock lock(id, timeout_seconds);
		found = Inspect(services, id);
	}
	if (found->listed.data_version == -1 || !found->AreBad()) {
		return *std::move(found);
	}
	const auto look_again = [&] {
		// Updates wait meanwhile: no longer than they must.
		const dataupdate::FileLock still = HoldOffUpdates(dataupdate::UpdateLockPath(id), left());
		const ReaderLock lock(id, left());
		return InspectAgain(services, id, *found);
	};
	if (!found->is_unfinished) {
		return look_again();
	}
	// A volume that is being adopted is compared with the records, while marks stand, under this lock alone.
	const dataupdate::FileLock none_at_all = HoldOffUpdates(dataupdate::kUpdateAnyLock, left());
	return look_again();
}

Json::Value FilesToJson(const std::vector<BadFile>& files) {
	Json::Value array(Json::arrayValue);
	for (const BadFile& file : files) {
		Json::Value object(Json::objectValue);
		object["path"] = file.path;
		object["reason"] = file.reason;
		array.append(object);
	}
	return array;
}

/** How the record of all files is named, and what keeps a sound verdict from being worth what it seems. */
struct KnowledgeText {
	const char* name;
	const char* warning;
};

KnowledgeText TextOf(Knowledge knowledge) {
	switch (knowledge) {
	case Knowledge::kAll:
		return {"complete", ""};
	case Knowledge::kFromDisk:
		return {"rebuilt", "\n\tthe record of all files had been lost and was made again from the disk; \"tarndbudctl "
		                   "fix\" renews it only where something is bad"};
	case Knowledge::kListed:
		break;
	}
	return {"missing", "\n\tonly what the last update changed was compared, for the record of all files is missing; an "
	                   "update to a newer version or a fix makes it again"};
}

std::string Describe(const Findings& found) {
	std::string text = found.AreBad() ? "needs a fix" : "ok";
	if (found.is_unfinished) {
		text += "\n\tthe last replacement of its files was not finished";
	}
	return text + FormatFiles(found.bad) + FormatFiles(found.unknown) + TextOf(found.knowledge).warning;
}

Json::Value ToJson(const Findings& found) {
	Json::Value result = MakeResult(found.AreBad() ? "needs a fix" : "ok", found.listed.data_version);
	result["bad_files"] = FilesToJson(found.bad);
	result["unknown_files"] = FilesToJson(found.unknown);
	result["unfinished"] = found.is_unfinished;
	result["record_of_all_files"] = TextOf(found.knowledge).name;
	if (found.AreBad()) {
		result["exit_status"] = kFixNeeded;
	}
	return result;
}

/** Without a volume, files that live on one would all seem to be missing. */
void RequireReachable(const Services& services, const std::string& id) {
	if (services.config->GetDatabaseConfig(id)->GetRootDirectory().empty() &&
	    ReadInstalled(services, id).data_version != -1) {
		RequireVolume(services);
	}
}

void TellNotInstalled(const Services& services, Report& report, const std::string& id) {
	Json::Value result = MakeResult("not installed", -1);
	result["exit_status"] = kFixNeeded;
	const std::optional<std::string> old_place = FindOldPlace(services, id, ReadRecorded(services, id));
	if (old_place) {
		result["previous_dir"] = *old_place;
	}
	report.Tell(id, "not installed" + (old_place ? ": " + DescribeOldPlace(services, id, *old_place) : ""), result);
}

ExitCode CheckDatabase(const Services& services, Report& report, const std::string& id, unsigned long timeout_seconds) {
	services.config->CheckSupported(id);
	RequireReachable(services, id);
	const Findings found = LookThoroughly(services, id, timeout_seconds);
	if (found.listed.data_version == -1) {
		TellNotInstalled(services, report, id);
		return kFixNeeded;
	}
	report.Tell(id, Describe(found), ToJson(found));
	return found.AreBad() ? kFixNeeded : kDone;
}

void Declare(CLI::App& app, Options& options) {
	DeclareDatabases(app, options, "check", "all of them");
	DeclareTimeout(app, options, "Seconds to wait while a database is being replaced or its files are being recorded");
	DeclareJsonArray(app, options);
}

ExitCode Run(const Services& services, const Options& options) {
	Report report(services, options);
	return report.RunEach(options.ids.empty() ? services.config->GetDatabaseIDs() : options.ids,
	    [&](const std::string& id) { return CheckDatabase(services, report, id, options.timeout_seconds); });
}

} // namespace

const Command kCheckCommand = {"check", "Compare all installed files with their recorded digests",
    "Without ids, checks all databases. Uses no network and changes nothing. A database needs a fix when\n"
    "files are missing, changed or unknown, when their replacement was not finished, or when it is not installed.",
    {kUnsupported, kFixNeeded, kLocked}, true, true, Declare, Run};

} // namespace tarn::ctl
