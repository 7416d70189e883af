#include "base/text.h"
#include "dataupdate/update_error.h"
#include "host/commands/commands.h"
#include "host/commands/report.h"
#include "host/library/failure.h"
#include "host/library/operation.h"
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

std::uint64_t SavedBytes(const Outcome& outcome) {
	const std::uint64_t full = outcome.full_package_bytes.value_or(0);
	return full > outcome.downloaded_bytes ? full - outcome.downloaded_bytes : 0;
}

std::string DescribeSaving(const Outcome& outcome) {
	if (SavedBytes(outcome) == 0) {
		return "";
	}
	return " (downloaded " + HumanSize(outcome.downloaded_bytes) + ", saved " + HumanSize(SavedBytes(outcome)) +
	       " of the full package)";
}

std::string DescribeChange(const Outcome& outcome) {
	const std::string version = "version " + std::to_string(outcome.Version());
	if (outcome.is_finished) {
		return "finished the update to " + version + " that was killed";
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
	if (VersionBefore(outcome) == -1) {
		return MakeResult(outcome.was_unfinished ? "reinstalled" : "installed", outcome.Version());
	}
	Json::Value result = MakeResult("updated", outcome.Version());
	result["previous_version"] = outcome.before;
	result["downloaded_bytes"] = Json::UInt64{outcome.downloaded_bytes};
	if (outcome.full_package_bytes) {
		result["full_package_bytes"] = Json::UInt64{*outcome.full_package_bytes};
	}
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

/** What came of an update that ended without an exception. */
struct Result {
	Outcome outcome;
	Failure refusal; ///< By a check of this machine; the other databases are no worse for it.
};

ExitCode TryUpdate(const Services& services, const Options& options, const std::string& id, Result& result) {
	RequireNoLostVolume(services);
	RequireSafePlaces(services, id);
	try {
		result.outcome =
		    UpdateDatabase(services, id, options.retry_refused ? RefusedVersion::kRetry : RefusedVersion::kLeave);
	} catch (const dataupdate::UpdateError& error) {
		if (CategoryOf(error.what()) != Category::kRefusedByCheck) {
			throw;
		}
		result.refusal = ExplainException(*services.io);
		RecordFailure(id, "update", result.refusal);
		return kRefusedHere;
	}
	return Judge(services, id, result.outcome);
}

ExitCode Update(const Services& services, const Options& options, Report& report, const std::string& id) {
	services.config->CheckSupported(id);
	Result result;
	const ExitCode code = RunRecorded(services, id, "update", [&] { return TryUpdate(services, options, id, result); });
	const Outcome& outcome = result.outcome;
	if (code == kRefusedHere) {
		report.Fail(id, result.refusal, "refused");
	} else if (outcome.installed) {
		const std::string saving = services.terminal.Draws() ? DescribeSaving(outcome) : "";
		report.Tell(id, DescribeChange(outcome) + saving, ChangeToJson(outcome));
	} else if (code == kAboveOffered) {
		report.Tell(
		    id, DescribeAbove(id, outcome.before, outcome.offered), AboveToJson(outcome.before, outcome.offered));
	} else {
		report.Tell(
		    id, "up to date, version " + std::to_string(outcome.before), MakeResult("up to date", outcome.before));
	}
	return code;
}

void Declare(CLI::App& app, Options& options) {
	DeclareDatabases(app, options, "update", "Update the scheduled databases");
	DeclareNoWait(app, options);
	app.add_flag(
	    "--retry-refused", options.retry_refused, "Also try versions that a check of this machine refused before");
	DeclareJsonArray(app, options);
}

ExitCode Run(const Services& services, const Options& options) {
	RequireIdle(services, options);
	Report report(services, options);
	return report.RunNamedOrScheduled([&](const std::string& id) { return Update(services, options, report, id); });
}

} // namespace

const Command kUpdateCommand = {"update", "Bring databases to the server's version",
    "Without ids, and with --all, updates the scheduled databases in the order of the configuration, up to the first "
    "that\n"
    "fails. Tries all databases that are named; the exit status is then that of the first failure. Fails when nothing "
    "could\n"
    "be updated because there is no storage volume. Leaves a later version than the server's alone, and updates the "
    "others. Leaves a version alone that a hook of this machine refused before, as well.",
    {kUnsupported, kAboveOffered, kRefusedHere, kLocked}, true, true, Declare, Run};

} // namespace tarn::ctl
