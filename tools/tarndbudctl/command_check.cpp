#include "commands.h"
#include "databases.h"
#include "file_check.h"
#include "reader_lock.h"
#include "text.h"

#include <dataupdate/file_lock.h>
#include <dataupdate/replacement_mark.h>
#include <dataupdate/update_error.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>

namespace tarn::ctl {

namespace {

using dataupdate::DatabaseStatus;
using Clock = std::chrono::steady_clock;

constexpr size_t kMostFilesShown = 20;
constexpr size_t kLongestPath = 4096;

std::string FormatBadFiles(const std::vector<BadFile>& files) {
	std::string text;
	for (size_t i = 0; i < std::min(files.size(), kMostFilesShown); ++i) {
		text += "\n\t" + Printable(files[i].path, kLongestPath) + " " + files[i].reason;
	}
	if (files.size() > kMostFilesShown) {
		text += "\n\tand " + std::to_string(files.size() - kMostFilesShown) + " more";
	}
	return text;
}

/** What is recorded of a database, and which files are not as recorded. */
struct Findings {
	DatabaseStatus status;
	std::vector<BadFile> bad;
};

/** The recorded files that were found bad. */
DatabaseStatus Suspects(const Findings& found) {
	DatabaseStatus suspects;
	for (const BadFile& file : found.bad) {
		suspects.file_statuses[file.name] = found.status.file_statuses.at(file.name);
	}
	return suspects;
}

Findings Look(const Services& services, const std::string& id, unsigned long timeout_seconds) {
	// None is needed, or to be had, before anything was replaced.
	const ReaderLock lock(id, timeout_seconds);
	Findings found;
	found.status = services.info->GetDatabaseStatus(id);
	found.bad = FindBadFiles(found.status, services.config->GetDatabaseConfig(id)->GetInstallPrefix());
	return found;
}

dataupdate::FileLock HoldOffUpdates(const std::string& id, unsigned long timeout_seconds) {
	try {
		return {"/run/data_update/update_" + id + ".lock", timeout_seconds};
	} catch (const dataupdate::UpdateError& error) {
		if (!StartsWith(error.what(), "Fail to lock ")) {
			throw;
		}
		throw CommandError(kLocked, "The database is being updated; check it later");
	}
}

/**
 * Looks once more, while updates wait: no longer than it must, so at what was bad alone, unless there is another record
 * by now, or files were replaced without one.
 */
Findings LookAgain(
    const Services& services, const std::string& id, unsigned long timeout_seconds, const Findings& before) {
	const ReaderLock lock(id, timeout_seconds);
	Findings found;
	found.status = services.info->GetDatabaseStatus(id);
	const bool is_same = found.status == before.status && !dataupdate::IsReplacementMarked(id);
	found.bad = FindBadFiles(
	    is_same ? Suspects(before) : found.status, services.config->GetDatabaseConfig(id)->GetInstallPrefix());
	return found;
}

/** Looks again when anything is bad: an update records its files' digests after it has let go of the files. */
Findings LookThoroughly(const Services& services, const std::string& id, unsigned long timeout_seconds) {
	const Clock::time_point begin = Clock::now();
	const auto left = [&] {
		const auto passed = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin).count();
		return timeout_seconds - std::min(timeout_seconds, static_cast<unsigned long>(passed));
	};
	Findings found = Look(services, id, timeout_seconds);
	if (found.bad.empty()) {
		return found;
	}
	const dataupdate::FileLock lock = HoldOffUpdates(id, left());
	return LookAgain(services, id, left(), found);
}

Json::Value BadFilesToJson(const std::vector<BadFile>& files) {
	Json::Value array(Json::arrayValue);
	for (const BadFile& file : files) {
		Json::Value object(Json::objectValue);
		object["path"] = file.path;
		object["reason"] = file.reason;
		array.append(object);
	}
	return array;
}

ExitCode CheckDatabase(const Services& services, Report& report, const std::string& id, unsigned long timeout_seconds) {
	services.config->CheckSupported(id);
	const auto [status, bad] = LookThoroughly(services, id, timeout_seconds);
	if (status.data_version == -1) {
		report.Tell(id, "not installed", MakeResult("not installed", status.data_version));
		return kFixNeeded;
	}
	const char* const verdict = bad.empty() ? "ok" : "needs a fix";
	Json::Value result = MakeResult(verdict, status.data_version);
	result["bad_files"] = BadFilesToJson(bad);
	report.Tell(id, verdict + FormatBadFiles(bad), result);
	return bad.empty() ? kDone : kFixNeeded;
}

} // namespace

void DeclareCheck(CLI::App& app, Options& options) {
	DeclareDatabases(app, options, "check", "Check all databases");
	DeclareTimeout(app, options, "Seconds to wait while a database is being replaced or its files are being recorded");
	DeclareJsonArray(app, options);
}

ExitCode RunCheck(const Services& services, const Options& options) {
	Report report(services.terminal, options.json);
	return report.Run([&] {
		return ForEachDatabase(
		    services, options.ids.empty() ? services.config->GetDatabaseIDs() : options.ids,
		    [&](const std::string& id) { return CheckDatabase(services, report, id, options.timeout_seconds); },
		    [&](const std::string& id, const Failure& failure) { report.Complain(id, failure); });
	});
}

} // namespace tarn::ctl
