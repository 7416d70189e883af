#include "host/commands/update.h"

#include "base/text.h"
#include "dataupdate/installation.h"
#include "dataupdate/update_error.h"
#include "host/commands/commands.h"
#include "host/commands/operation.h"
#include "host/library/budget.h"
#include "host/library/failure.h"
#include "host/library/hold.h"
#include "host/library/preparation.h"
#include "host/library/rejection.h"
#include "host/library/run_record.h"
#include "host/terminal/text.h"

#include <CLI/CLI.hpp>

#include <syslog.h>

#include <optional>
#include <utility>

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
	if (outcome.goes_back) {
		return "went back from version " + std::to_string(outcome.before) + " to " + version;
	}
	if (VersionBefore(outcome) != -1) {
		return "updated from version " + std::to_string(outcome.before) + " to " + version;
	}
	return (outcome.was_unfinished ? "reinstalled " : "installed ") + version + DescribeWayBack(outcome) +
	       DescribeLeftBehind(outcome);
}

Json::Value ChangeToJson(const Outcome& outcome) {
	if (VersionBefore(outcome) == -1 && !outcome.goes_back) {
		Json::Value result = MakeResult(outcome.was_unfinished ? "reinstalled" : "installed", outcome.Version());
		AddWayBack(outcome, result);
		return result;
	}
	Json::Value result = MakeResult(outcome.goes_back ? "went back" : "updated", outcome.Version());
	result["previous_version"] = outcome.before;
	result["downloaded_bytes"] = Json::UInt64{outcome.downloaded_bytes};
	return result;
}

std::string DescribeAbove(const std::string& id, int installed, int offered) {
	return "installed " + std::to_string(installed) + " is above the offered " + std::to_string(offered) +
	       "; nothing was changed. If the publisher took the later version back, \"tarndbudctl force-install " + id +
	       " 0\" installs the offered one";
}

Json::Value RefusalToJson(const Outcome& outcome) {
	const bool is_held = outcome.refusal->Code() == kHeld;
	Json::Value result = MakeResult(is_held ? "held" : "beyond budget", outcome.before);
	result["offered_version"] = outcome.offered;
	result["reason"] = outcome.refusal->what();
	return result;
}

/** The library treats a later version than the server's as up to date, and only logs that there is no volume. */
ExitCode Judge(const Services& services, const std::string& id, const Outcome& outcome) {
	if (outcome.refusal) {
		return outcome.refusal->Code();
	}
	const int before = VersionBefore(outcome);
	if (outcome.installed || outcome.offered == before) {
		return kDone;
	}
	if (outcome.offered < before) {
		return kAboveOffered;
	}
	RequireVolume(services);
	throw CommandError(kFailed, id + " was not updated, though version " + std::to_string(outcome.offered) +
	                                " is offered; the system log tells why");
}

/** A hold that was asked for is no failure of a scheduled run; one that cannot be understood has to be noticed. */
ExitCode TellHeld(const Services& services, Report& report, const std::string& id, bool is_scheduled, const Hold& hold,
    Json::Value result) {
	const std::string version = result["version"].isNull() ? "nothing" : "version " + result["version"].asString();
	const ExitCode code = is_scheduled && hold.problem.empty() && !dataupdate::IsReplacementMarked(id) ? kDone : kHeld;
	syslog(LOG_NOTICE, "%s is %s, so %s stays installed.", id.c_str(), DescribeHold(hold).c_str(), version.c_str());
	if (!hold.problem.empty()) {
		syslog(LOG_ERR, "%s", HoldProblem(id, hold).c_str());
		services.terminal.Complain(HoldProblem(id, hold) + ".");
	}
	result["held_up_to"] = OrNull(hold.up_to);
	if (code != kDone) {
		result["exit_status"] = code;
	}
	const std::string advice = dataupdate::IsReplacementMarked(id)
	                               ? "its last replacement was not finished: \"tarndbudctl fix " + id + "\" repairs it"
	                               : "\"tarndbudctl unhold " + id + "\" ends the hold";
	report.Tell(id, DescribeHold(hold) + ", " + version + " stays installed; " + advice, std::move(result));
	return code;
}

ExitCode TellBeyondBudget(Report& report, const std::string& id, const Outcome& outcome) {
	const std::string text =
	    "version " + std::to_string(outcome.offered) + " was not installed: " + outcome.refusal->what();
	syslog(LOG_WARNING, "%s: %s", id.c_str(), text.c_str());
	Json::Value result = RefusalToJson(outcome);
	result["exit_status"] = kBeyondBudget;
	report.Tell(id, text, std::move(result));
	return kBeyondBudget;
}

void TellEnd(const Services& services, Report& report, const std::string& id, const Outcome& outcome,
    const Offerer& offerer, ExitCode code) {
	if (outcome.installed) {
		const std::string saving = services.terminal.Draws() ? DescribeSaving(outcome) : "";
		report.Tell(id, DescribeChange(outcome) + saving, ChangeToJson(outcome));
	} else if (code == kAboveOffered) {
		Json::Value result = MakeResult("above offered", outcome.before);
		result["offered_version"] = outcome.offered;
		result["exit_status"] = kAboveOffered;
		report.Tell(id, offerer.describe_above(id, outcome.before, outcome.offered), std::move(result));
	} else {
		report.Tell(
		    id, "up to date, version " + std::to_string(outcome.before), MakeResult("up to date", outcome.before));
	}
}

/** The command line says more than the settings. */
Budget ChooseBudget(const Services& services, const Options& options) {
	if (options.max_bytes) {
		return BudgetOf(*options.max_bytes);
	}
	return options.ids.empty() && services.scheduled_budget ? services.scheduled_budget() : Budget();
}

void DeclareMaxBytes(CLI::App& app, Options& options) {
	constexpr char kHelp[] = "Leave a database alone whose packages are larger together; k, M and G are decimal units";
	const auto take = [&options](const std::string& text) {
		options.max_bytes = ParseBytes(text);
		if (!options.max_bytes) {
			throw CLI::ValidationError("--max-bytes", "a number is needed, such as 1500, 1500k, 20M or 3G");
		}
	};
	app.add_option_function<std::string>("--max-bytes", take, kHelp);
}

void Declare(CLI::App& app, Options& options) {
	DeclareDatabases(app, options, "update", "the scheduled ones");
	DeclareMaxBytes(app, options);
	DeclareNoWait(app, options);
	app.add_flag(
	    "--retry-refused", options.retry_refused, "Also try versions that a check of this machine refused before");
	DeclareJsonArray(app, options);
}

ExitCode Run(const Services& services, const Options& options) {
	RequireIdle(services, options);
	Report report(services, options);
	const Budget budget = ChooseBudget(services, options);
	const auto refused = options.retry_refused ? RefusedVersion::kRetry : RefusedVersion::kLeave;
	const auto install = [&budget, refused](const Services& own, const std::string& id) {
		return UpdateDatabase(own, id, budget, refused);
	};
	const Offerer server = {"update", install, DescribeAbove, options.ids.empty()};
	return report.RunNamedOrScheduled(
	    [&](const std::string& id) { return InstallOffered(services, report, id, server); });
}

} // namespace

ExitCode InstallOffered(const Services& services, Report& report, const std::string& id, const Offerer& offerer) {
	services.config->CheckSupported(id);
	if (const std::optional<Hold> hold = ReadHold(id); hold && !hold->up_to) {
		return TellHeld(services, report, id, offerer.is_scheduled, *hold,
		    MakeResult("held", ReadInstalled(services, id).data_version));
	}
	Outcome outcome;
	Failure by_check; // By a check of this machine; the other databases are no worse for it.
	const ExitCode code = RunOperation(services, report, id, offerer.operation, [&] {
		RequireNoLostVolume(services);
		RequireSafePlaces(services, id);
		try {
			outcome = offerer.install(services, id);
		} catch (const dataupdate::UpdateError& error) {
			if (CategoryOf(error.what()) != Category::kRefusedByCheck) {
				throw;
			}
			by_check = ExplainException(*services.io, id);
			by_check.sentence += WayOutOfRefusal(services, id);
			RecordFailure(id, offerer.operation, by_check);
			return kRefusedHere;
		}
		const ExitCode judged = Judge(services, id, outcome);
		return judged == kHeld ? kDone : judged; // Nothing was to be done.
	});
	if (code == kRefusedHere) {
		report.Fail(id, by_check, "refused");
		return code;
	}
	if (!outcome.refusal) {
		TellEnd(services, report, id, outcome, offerer, code);
		return code;
	}
	if (code == kBeyondBudget) {
		return TellBeyondBudget(report, id, outcome);
	}
	return TellHeld(services, report, id, offerer.is_scheduled, ReadHold(id).value_or(Hold()), RefusalToJson(outcome));
}

const Command kUpdateCommand = {"update", "Bring databases to the server's version",
    "Without ids, updates the scheduled databases in the order of their ids, up to the first that\n"
    "fails. Tries all databases that are named; the exit status is then that of the first failure. Fails when nothing "
    "could\n"
    "be updated because there is no storage volume. Leaves a later version than the server's alone, and updates the "
    "others. Leaves a version alone that a hook of this machine refused before, as well.\n"
    "Leaves alone what is held, and what would take more bytes than --max-bytes or, without names, the setting\n"
    "\"scheduled_full_packages\" allow.",
    {kUnsupported, kAboveOffered, kRefusedHere, kBeyondBudget, kHeld, kLocked}, true, true, Declare, Run};

} // namespace tarn::ctl
