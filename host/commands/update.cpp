#include "host/commands/update.h"

#include "host/commands/commands.h"
#include "host/library/failure.h"
#include "host/library/preparation.h"
#include "host/library/record_keeper.h"

#include <CLI/CLI.hpp>

#include <string>

namespace tarn::ctl {

namespace {

/** -1 for what is unfinished, because the library installs it again as a whole. */
int VersionBefore(const Outcome& outcome) {
	return outcome.was_unfinished ? -1 : outcome.before;
}

std::string DescribeChange(const Outcome& outcome) {
	const std::string version = "version " + std::to_string(outcome.Version());
	if (outcome.is_finished) {
		return "finished the update to " + version + " that was killed";
	}
	if (outcome.goes_back) {
		return "went back from version " + std::to_string(outcome.before) + " to " + version;
	}
	if (VersionBefore(outcome) != -1) {
		return "updated from version " + std::to_string(outcome.before) + " to " + version;
	}
	return (outcome.was_unfinished ? "reinstalled " : "installed ") + version;
}

Json::Value ChangeToJson(const Outcome& outcome) {
	if (outcome.is_finished) {
		return MakeResult("finished", outcome.Version());
	}
	if (VersionBefore(outcome) == -1 && !outcome.goes_back) {
		return MakeResult(outcome.was_unfinished ? "reinstalled" : "installed", outcome.Version());
	}
	Json::Value result = MakeResult(outcome.goes_back ? "went back" : "updated", outcome.Version());
	result["previous_version"] = outcome.before;
	return result;
}

std::string DescribeAbove(const std::string& id, int installed, int offered) {
	return "installed " + std::to_string(installed) + " is above the offered " + std::to_string(offered) +
	       "; nothing was changed. If the publisher took the later version back, \"tarndbudctl force-install " + id +
	       " 0\" installs the offered one";
}

Json::Value AboveToJson(int installed, int offered) {
	Json::Value result = MakeResult("above offered", installed);
	result["offered_version"] = offered;
	result["exit_status"] = kAboveOffered;
	return result;
}

/** The library treats a later version than the server's as up to date, and only logs when it stopped without a volume.
 */
ExitCode Judge(const Services& services, const std::string& id, const Outcome& outcome) {
	const int before = outcome.is_finished ? outcome.Version() : VersionBefore(outcome);
	if ((outcome.installed && !outcome.is_finished) || outcome.offered == before) {
		return kDone;
	}
	if (outcome.offered < before) {
		return kAboveOffered;
	}
	RequireVolume(services);
	throw CommandError(kFailed, id + " was not updated, though version " + std::to_string(outcome.offered) +
	                                " is offered; the system log tells why");
}

void Declare(CLI::App& app, Options& options) {
	DeclareDatabases(app, options, "update", "Update the scheduled databases");
	DeclareNoWait(app, options);
	DeclareJsonArray(app, options);
}

ExitCode Run(const Services& services, const Options& options) {
	RequireIdle(services, options);
	Report report(services, options);
	const Offerer server = {"update", UpdateDatabase, DescribeAbove};
	return report.RunNamedOrScheduled(
	    [&](const std::string& id) { return InstallOffered(services, report, id, server); });
}

} // namespace

ExitCode InstallOffered(const Services& services, Report& report, const std::string& id, const Offerer& offerer) {
	services.config->CheckSupported(id);
	Outcome outcome;
	const ExitCode code = RunRecorded(services, id, offerer.operation, [&] {
		RequireNoLostVolume(services);
		RequireSafePlaces(services, id);
		outcome = offerer.install(services, id);
		return Judge(services, id, outcome);
	});
	if (outcome.installed) {
		report.Tell(id, DescribeChange(outcome), ChangeToJson(outcome));
	} else if (code == kAboveOffered) {
		report.Tell(id, offerer.describe_above(id, outcome.before, outcome.offered),
		    AboveToJson(outcome.before, outcome.offered));
	} else {
		report.Tell(
		    id, "up to date, version " + std::to_string(outcome.before), MakeResult("up to date", outcome.before));
	}
	return code;
}

const Command kUpdateCommand = {"update", "Bring databases to the server's version",
    "Without ids, and with --all, updates the scheduled databases in the order of the configuration, up to the first "
    "that\n"
    "fails. Tries all databases that are named; the exit status is then that of the first failure. Fails when nothing "
    "could\n"
    "be updated because there is no storage volume. Leaves a later version than the server's alone, and updates the "
    "others.",
    {kUnsupported, kAboveOffered, kLocked}, true, true, Declare, Run};

} // namespace tarn::ctl
