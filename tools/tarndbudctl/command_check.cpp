#include "commands.h"
#include "databases.h"
#include "file_check.h"
#include "reader_lock.h"
#include "text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <optional>

namespace tarn::ctl {

namespace {

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

/** What was found, or no value when an update ended in between, so that files and record may not belong together. */
std::optional<std::vector<BadFile>> TryCheck(
    const Services& services, const std::string& id, const dataupdate::DatabaseStatus& status) {
	const std::string prefix = services.config->GetDatabaseConfig(id)->GetInstallPrefix();
	std::vector<BadFile> bad = FindBadFiles(status, prefix);
	if (bad.empty()) {
		return bad;
	}
	// An update records its digests after the lock on the files is released.
	if (services.checker->IsUpdating(id)) {
		throw CommandError(kLocked, "The database is being updated; check it later");
	}
	if (services.info->GetDatabaseStatus(id) != status) {
		return std::nullopt;
	}
	return bad;
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
	std::optional<std::vector<BadFile>> bad;
	dataupdate::DatabaseStatus status;
	while (!bad) {
		// None is needed, or to be had, before anything was replaced.
		const ReaderLock lock(id, timeout_seconds);
		status = services.info->GetDatabaseStatus(id);
		if (status.data_version == -1) {
			report.Tell(id, "not installed", MakeResult("not installed", status.data_version));
			return kFixNeeded;
		}
		bad = TryCheck(services, id, status);
	}
	Json::Value result = MakeResult(bad->empty() ? "ok" : "needs a fix", status.data_version);
	result["bad_files"] = BadFilesToJson(*bad);
	report.Tell(id, (bad->empty() ? "ok" : "needs a fix") + FormatBadFiles(*bad), result);
	return bad->empty() ? kDone : kFixNeeded;
}

} // namespace

void DeclareCheck(CLI::App& app, Options& options) {
	DeclareDatabases(app, options, "check", "Check all databases");
	DeclareTimeout(app, options, "Seconds to wait while a database is being replaced");
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
