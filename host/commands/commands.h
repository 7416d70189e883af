/** @file The commands, one source file each. All throw what the library throws; the program explains it. */
#ifndef HOST_COMMANDS_COMMANDS_H
#define HOST_COMMANDS_COMMANDS_H

#include "host/commands/command.h"

namespace tarn::ctl {

void DeclareInit(CLI::App& app, Options& options);
/** Settles the storage volume, and lets readers take locks; fails when no volume is suitable. */
ExitCode RunInit(const Services& services, const Options& options);

void DeclareStatus(CLI::App& app, Options& options);
/** Compares what is installed with what the server offers; a server that cannot be reached is no failure. */
ExitCode RunStatus(const Services& services, const Options& options);

void DeclareUpdate(CLI::App& app, Options& options);
/** Updates the named databases, or the scheduled ones. */
ExitCode RunUpdate(const Services& services, const Options& options);

void DeclareCheck(CLI::App& app, Options& options);
/** Compares installed files with their recorded digests. */
ExitCode RunCheck(const Services& services, const Options& options);

void DeclareFix(CLI::App& app, Options& options);
/** Repairs the named databases, or the scheduled ones, where files are missing or changed. */
ExitCode RunFix(const Services& services, const Options& options);

void DeclareForceInstall(CLI::App& app, Options& options);
/** Installs a chosen version over what is there. */
ExitCode RunForceInstall(const Services& services, const Options& options);

void DeclareRead(CLI::App& app, Options& options);
/** Runs a command under the reader's lock and ends as it ends. */
ExitCode RunRead(const Services& services, const Options& options);

/** Drops the cached server document. */
ExitCode RunRefresh(const Services& services, const Options& options);

void DeclareMetrics(CLI::App& app, Options& options);
/** Tells a monitoring system what is installed and how updates went. */
ExitCode RunMetrics(const Services& services, const Options& options);

void DeclareSchedule(CLI::App& app, Options& options);
/** Takes a database into the scheduled updates, or out of them. */
ExitCode RunSchedule(const Services& services, const Options& options);

void DeclareVolumeShow(CLI::App& app, Options& options);
/** Shows the volume that holds the databases. */
ExitCode RunVolumeShow(const Services& services, const Options& options);

void DeclareVolumeMounted(CLI::App& app, Options& options);
/** Adopts a volume that was mounted, when none is in use. */
ExitCode RunVolumeMounted(const Services& services, const Options& options);

void DeclareVolumeUnmounting(CLI::App& app, Options& options);
/** Moves the databases away from a volume that is about to go. */
ExitCode RunVolumeUnmounting(const Services& services, const Options& options);

} // namespace tarn::ctl

#endif
