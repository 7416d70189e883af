/** @file What commands that bring a database to an offered version have in common. */
#ifndef HOST_COMMANDS_UPDATE_H
#define HOST_COMMANDS_UPDATE_H

#include "host/commands/report.h"
#include "host/library/operation.h"
#include "host/library/services.h"

#include <functional>
#include <string>

namespace tarn::ctl {

/** Who offers versions. */
struct Offerer {
	const char* operation; ///< The name in the record of the run.
	/** Installs what is offered; called when places and volume are as they must be. */
	std::function<Outcome(const Services& services, const std::string& id)> install;
	/** Says that a later version is installed than offered, as the end of a sentence. */
	std::function<std::string(const std::string& id, int installed, int offered)> describe_above;
	bool is_scheduled = false; ///< Whether nobody asked for this database in particular.
};

/** Brings a database to the offered version, records the run and reports what became of it. */
[[nodiscard]] ExitCode InstallOffered(
    const Services& services, Report& report, const std::string& id, const Offerer& offerer);

} // namespace tarn::ctl

#endif
