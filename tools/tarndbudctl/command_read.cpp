#include "child_command.h"
#include "commands.h"
#include "databases.h"
#include "reader_lock.h"

#include <dataupdate/interruption.h>
#include <dataupdate/update_error.h>

#include <CLI/CLI.hpp>

#include <memory>

namespace tarn::ctl {

namespace {

/** A lock that is held; after a restart its file is missing until somebody makes it. */
std::unique_ptr<ReaderLock> TakeLock(const Services& services, const Options& options) {
	auto lock = std::make_unique<ReaderLock>(options.id, options.timeout_seconds);
	if (lock->Held()) {
		return lock;
	}
	if (services.info->GetDatabaseStatus(options.id).data_version == -1) {
		throw CommandError(kLocked, "Nothing is installed of " + options.id + ", so there is nothing to lock");
	}
	if (MakeReaderLockFile(options.id)) {
		lock = std::make_unique<ReaderLock>(options.id, options.timeout_seconds);
	}
	if (!lock->Held()) {
		throw CommandError(kLocked, "The lock file of " + options.id +
		                                " is missing since the system started; run \"tarndbudctl init\" as root");
	}
	return lock;
}

} // namespace

void DeclareRead(CLI::App& app, Options& options) {
	app.add_option("ID", options.id, "Database")->required();
	DeclareTimeout(app, options, "Seconds to wait while the database is being replaced");
}

ExitCode RunRead(const Services& services, const Options& options) {
	services.config->CheckSupported(options.id);
	const std::unique_ptr<ReaderLock> lock = TakeLock(services, options);
	if (dataupdate::IsInterruptionRequested()) {
		throw CommandError(kInterrupted, "Interrupted");
	}
	return RunChildCommand(options.command);
}

} // namespace tarn::ctl
