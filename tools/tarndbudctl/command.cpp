#include "command.h"

#include "commands.h"

namespace tarn::ctl {

const std::vector<Command>& AllCommands() {
	static const std::vector<Command> kCommands = {
	    {"init", "Choose the storage volume, once when the service starts",
	        "A volume that has been chosen before is kept. Fails when no volume is suitable.", true, false, nullptr,
	        RunInit},
	    {"status", "Show what is installed and what the server offers",
	        "The server is asked at most once, and not while its last answer is at most an hour old. A server that\n"
	        "cannot be reached is no failure: what it offers is then unknown, and the reason is given.",
	        true, false, DeclareStatus, RunStatus},
	    {"update", "Bring databases to the server's version",
	        "Without ids, and with --all, these are the scheduled databases in the configuration's order, up to the\n"
	        "first that fails. Named ones are all tried; the exit status is then that of the first failure. It is a\n"
	        "failure, too, when nothing could be updated because there is no storage volume.",
	        true, true, DeclareUpdate, RunUpdate},
	    {"check", "Compare installed files with their recorded digests",
	        "Without ids, and with --all, these are all databases. Uses no network and changes nothing. Ends with 4\n"
	        "when a database needs a fix: a file is missing or changed, or the database is not installed.",
	        true, true, DeclareCheck, RunCheck},
	    {"schedule", "Include a database in scheduled updates, or exclude it", nullptr, true, false, DeclareSchedule,
	        RunSchedule},
	    {"volume show", "Show the volume that holds the databases", nullptr, false, false, DeclareVolumeShow,
	        RunVolumeShow},
	};
	return kCommands;
}

} // namespace tarn::ctl
