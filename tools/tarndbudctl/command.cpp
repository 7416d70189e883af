#include "command.h"

#include "commands.h"

namespace tarn::ctl {

const std::vector<Command>& AllCommands() {
	static const std::vector<Command> kCommands = {
	    {"init", "Choose the storage volume, once when the service starts", true, false, nullptr, RunInit},
	    {"status", "Show what is installed and what the server offers", true, false, DeclareStatus, RunStatus},
	    {"update",
	        "Bring databases to the server's version\n"
	        "Without ids, and with --all, these are the scheduled databases, in the configuration's order, up to the "
	        "first that fails. Named ones are all tried; the exit status is that of the first failure. Fails as well "
	        "when there is no storage volume and so nothing could be updated.",
	        true, true, DeclareUpdate, RunUpdate},
	    {"check",
	        "Compare installed files with their recorded digests\n"
	        "Without ids, and with --all, these are all databases. Uses no network and changes nothing. Ends with 4 "
	        "when a database needs a fix: a file is missing or changed, or it is not installed.",
	        true, true, DeclareCheck, RunCheck},
	    {"schedule", "Include a database in scheduled updates, or exclude it", true, false, DeclareSchedule,
	        RunSchedule},
	    {"volume show", "Show the volume that holds the databases", false, false, DeclareVolumeShow, RunVolumeShow},
	};
	return kCommands;
}

} // namespace tarn::ctl
