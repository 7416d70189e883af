#include "dataupdate/installation.h"
#include "dataupdate/interruption.h"
#include "dataupdate/update_error.h"
#include "host/commands/child_command.h"
#include "host/commands/commands.h"
#include "host/library/databases.h"
#include "host/library/reader_lock.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>

namespace tarn::ctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPause(100);

void RequireNotInterrupted() {
	if (dataupdate::IsInterruptionRequested()) {
		throw CommandError(kInterrupted, "Interrupted");
	}
}

/** A lock that is held; after a restart its file is missing until somebody makes it. */
std::unique_ptr<ReaderLock> TakeLock(const Services& services, const Options& options, unsigned long timeout_seconds) {
	auto lock = std::make_unique<ReaderLock>(options.id, timeout_seconds);
	if (lock->Held()) {
		return lock;
	}
	if (services.info->GetDatabaseStatus(options.id).data_version == -1) {
		throw CommandError(kLocked, "Nothing is installed of " + options.id + ", so there is nothing to lock");
	}
	if (MakeReaderLockFile(options.id)) {
		lock = std::make_unique<ReaderLock>(options.id, timeout_seconds);
	}
	if (!lock->Held()) {
		throw CommandError(kLocked, "The lock file of " + options.id +
		                                " is missing since the system started; run \"tarndbudctl init\" as root");
	}
	return lock;
}

/**
 * A lock on files that are one version. After a run that was killed while it replaced them the lock is free and only
 * the mark tells; it stands as well for a moment after each replacement, until that is recorded. Who cannot ask whether
 * an update is running, for want of root's rights, waits as if one were.
 */
std::unique_ptr<ReaderLock> TakeLockOnWhole(const Services& services, const Options& options) {
	const Clock::time_point begin = Clock::now();
	for (;;) {
		const auto passed = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin).count();
		const unsigned long left =
		    options.timeout_seconds - std::min(options.timeout_seconds, static_cast<unsigned long>(passed));
		std::unique_ptr<ReaderLock> lock = TakeLock(services, options, left);
		if (options.even_unfinished || !dataupdate::MayBeAMixture(options.id)) {
			return lock;
		}
		lock.reset();
		const bool may_be_recorded = left > 0 && services.checker->IsAnyUpdating();
		if (!may_be_recorded && dataupdate::MayBeAMixture(options.id)) {
			throw CommandError(kLocked, "The last replacement of the files of " + options.id +
			                                " was not finished, so they may be of two versions; the next update or fix "
			                                "installs them anew, and --even-unfinished reads them as they are");
		}
		std::this_thread::sleep_for(kPause);
		RequireNotInterrupted();
	}
}

} // namespace

void DeclareRead(CLI::App& app, Options& options) {
	app.add_option("ID", options.id, "Database")->required();
	DeclareTimeout(app, options, "Seconds to wait while the database is being replaced");
	app.add_flag("--even-unfinished", options.even_unfinished,
	    "Read even if the last replacement of the files was not finished, so that they may be of two versions");
}

ExitCode RunRead(const Services& services, const Options& options) {
	services.config->CheckSupported(options.id);
	const std::unique_ptr<ReaderLock> lock = TakeLockOnWhole(services, options);
	RequireNotInterrupted();
	return RunChildCommand(options.command);
}

} // namespace tarn::ctl
