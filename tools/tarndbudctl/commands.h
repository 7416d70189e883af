/** @file The commands, one source file each. All throw what the library throws; the program explains it. */
#ifndef TARNDBUDCTL_COMMANDS_H
#define TARNDBUDCTL_COMMANDS_H

#include "command.h"

namespace tarn::ctl {

/** Settles the storage volume; fails when none is suitable. */
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

void DeclareSchedule(CLI::App& app, Options& options);
/** Takes a database into the scheduled updates, or out of them. */
ExitCode RunSchedule(const Services& services, const Options& options);

void DeclareVolumeShow(CLI::App& app, Options& options);
/** Shows the volume that holds the databases. */
ExitCode RunVolumeShow(const Services& services, const Options& options);

} // namespace tarn::ctl

#endif
