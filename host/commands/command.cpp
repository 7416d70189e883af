#include "host/commands/command.h"

#include "host/commands/commands.h"
#include "host/commands/report.h"

namespace tarn::ctl {

const std::vector<Command>& AllCommands() {
	static const std::vector<Command> kCommands = {
	    {"init", "Choose the storage volume, once when the service starts",
	        "A volume that has been chosen before is kept. Fails when no volume is suitable. Makes the lock files of "
	        "what is\n"
	        "installed, so that readers without root's rights can take them.",
	        true, false, DeclareInit, RunInit},
	    {"status", "Show what is installed and what the server offers",
	        "The server is asked at most once, and not while its last answer is at most an hour old. A server that\n"
	        "cannot be reached is no failure: what it offers is then unknown, and the reason is given. The age is that "
	        "of\n"
	        "the signed package. Ends with 5 when a later version is installed than the server offers.",
	        true, false, DeclareStatus, RunStatus},
	    {"update", "Bring databases to the server's version",
	        "Without ids, and with --all, these are the scheduled databases in the configuration's order, up to the\n"
	        "first that fails. Named ones are all tried; the exit status is then that of the first failure. It is a\n"
	        "failure, too, when nothing could be updated because there is no storage volume. Ends with 5 when a later\n"
	        "version is installed than the server offers; it is left alone, and the others are updated.",
	        true, true, DeclareUpdate, RunUpdate},
	    {"check", "Compare all installed files with their recorded digests",
	        "Without ids, and with --all, these are all databases. Uses no network and changes nothing. Ends with 4\n"
	        "when a database needs a fix: files are missing, changed or unknown, their replacement was not finished, "
	        "or "
	        "the\ndatabase is not installed.",
	        true, true, DeclareCheck, RunCheck},
	    {"fix", "Reinstall databases whose files are missing, changed or unknown",
	        "Without ids, and with --all, these are the scheduled databases in the configuration's order, up to the\n"
	        "first that fails. What is intact is left alone; anything else, and what was never installed, gets the\n"
	        "server's full package.",
	        true, true, DeclareFix, RunFix},
	    {"force-install", "Install a chosen version over what is there",
	        "Makes the version's link from the server's by replacing the version number wherever it stands, host and\n"
	        "port included; unpacks the package over the installed files, keeps those that it lacks, and runs no "
	        "hooks.\n"
	        "The next update or fix brings the server's version back.",
	        true, true, DeclareForceInstall, RunForceInstall, Tail::kNumber},
	    {"read", "Run a command while a database cannot be replaced",
	        "Usage: tarndbudctl read ID [--timeout SECONDS] [--even-unfinished] -- COMMAND...\n"
	        "Ends with the command's exit status, or 128 plus the signal that ended it; with 75 and without running "
	        "it\n"
	        "when the lock was not obtained, or the last replacement of the files was not finished; with 127 or 126 "
	        "when it is missing or cannot be executed. The command "
	        "does\n"
	        "not inherit the lock: what it leaves running in the background does not hold it.",
	        false, false, DeclareRead, RunRead, Tail::kCommand},
	    {"refresh", "Drop the cached server document",
	        "The document is used for an hour; a web page that a network put in its place would be, too.", true, false,
	        DeclareJsonObject, RunRefresh},
	    {"metrics", "Print measurements for Prometheus",
	        "For the text-file collector of a node exporter, for example with --output\n"
	        "/var/lib/prometheus/node-exporter/tarndbud.prom. Uses no network: the offered versions are those of the\n"
	        "server's last document, whose time is told as well.",
	        true, false, DeclareMetrics, RunMetrics},
	    {"schedule", "Include a database in scheduled updates, or exclude it", nullptr, true, false, DeclareSchedule,
	        RunSchedule},
	    {"volume show", "Show the volume that holds the databases", nullptr, false, false, DeclareVolumeShow,
	        RunVolumeShow},
	    {"volume mounted", "Adopt a volume that was mounted, when none is in use",
	        "Nothing happens when a volume is in use, or when this one is not suitable. Databases that it lacks are "
	        "named,\nand installed anew by the next update.",
	        true, false, DeclareVolumeMounted, RunVolumeMounted},
	    {"volume unmounting", "Move the databases away from a volume that is about to be unmounted",
	        "They go to the first other suitable volume. Without one they stay, and are not updated until a volume is\n"
	        "mounted. Waits for a running update and for readers first. A volume that is not available is given up.",
	        true, false, DeclareVolumeUnmounting, RunVolumeUnmounting},
	};
	return kCommands;
}

} // namespace tarn::ctl
