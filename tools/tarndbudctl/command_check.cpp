#include "commands.h"
#include "failure.h"
#include "file_check.h"
#include "text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <optional>

namespace tarn::ctl {

namespace {

constexpr size_t kMostFilesShown = 20;
constexpr size_t kLongestPath = 4096;

/** A reader's lock on a database; none is needed, or to be had, before anything was ever installed. */
class ReaderLock {
public:
	ReaderLock(const std::string& id, unsigned long timeout_seconds)
	    : fd_(TARNDBUDGetFileLock(id.c_str(), timeout_seconds)) {
		if (fd_ == -1) {
			throw CommandError(kLocked, "The database is being replaced; check it later");
		}
	}
	~ReaderLock() { TARNDBUDReleaseFileLock(fd_); }
	ReaderLock(const ReaderLock&) = delete;
	ReaderLock& operator=(const ReaderLock&) = delete;

private:
	int fd_;
};

std::string FormatBadFiles(const std::vector<BadFile>& files) {
	std::string text;
	for (size_t i = 0; i < std::min(files.size(), kMostFilesShown); ++i) {
		text += "\t" + Printable(files[i].path, kLongestPath) + " " + files[i].reason + "\n";
	}
	if (files.size() > kMostFilesShown) {
		text += "\tand " + std::to_string(files.size() - kMostFilesShown) + " more\n";
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

ExitCode CheckDatabase(const Services& services, const std::string& id, unsigned long timeout_seconds) {
	services.config->CheckSupported(id);
	std::optional<std::vector<BadFile>> bad;
	while (!bad) {
		const ReaderLock lock(id, timeout_seconds);
		const dataupdate::DatabaseStatus status = services.info->GetDatabaseStatus(id);
		if (status.data_version == -1) {
			services.terminal.Say(id + " is not installed\n");
			return kFixNeeded;
		}
		bad = TryCheck(services, id, status);
	}
	services.terminal.Say(id + (bad->empty() ? ": ok\n" : ": needs a fix\n") + FormatBadFiles(*bad));
	return bad->empty() ? kDone : kFixNeeded;
}

} // namespace

void DeclareCheck(CLI::App& app, Options& options) {
	CLI::Option* ids = app.add_option("ID", options.ids, "Databases to check");
	app.add_flag("--all", options.all, "Check all databases (the default)")->excludes(ids);
	app.add_option("--timeout", options.timeout_seconds, "Seconds to wait while a database is being replaced")
	    ->check(CLI::NonNegativeNumber)
	    ->capture_default_str();
}

ExitCode RunCheck(const Services& services, const Options& options) {
	ExitCode code = kDone;
	for (const std::string& id : options.ids.empty() ? services.config->GetDatabaseIDs() : options.ids) {
		ExitCode own = kFailed;
		try {
			own = CheckDatabase(services, id, options.timeout_seconds);
		} catch (...) {
			const Failure failure = ExplainException(*services.io);
			services.terminal.Complain(id + ": " + failure.sentence);
			own = failure.code;
		}
		code = code == kDone ? own : code;
	}
	return code;
}

} // namespace tarn::ctl
