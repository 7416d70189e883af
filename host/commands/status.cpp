#include "base/text.h"
#include "dataupdate/installation.h"
#include "dataupdate/paths.h"
#include "host/commands/commands.h"
#include "host/commands/report.h"
#include "host/commands/watch.h"
#include "host/library/hold.h"
#include "host/library/install_place.h"
#include "host/library/installed_package.h"
#include "host/library/operation.h"
#include "host/library/preparation.h"
#include "host/library/rejection.h"
#include "host/library/run_record.h"
#include "host/terminal/text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <ctime>
#include <set>

namespace tarn::ctl {

namespace {

constexpr std::size_t kLongestReason = 1000;

void AskServer(const Services& services, StatusRow& row) {
	try {
		row.offered_version = services.info->GetRemoteInfo(row.id).data_version;
	} catch (...) {
		row.offer_error = PlainAscii(ExplainException(*services.io).sentence, kLongestReason);
	}
}

void ShowHold(StatusRow& row) {
	if (const std::optional<Hold> hold = ReadHold(row.id)) {
		row.held = true;
		row.held_up_to = hold->up_to;
		row.hold_problem = HoldProblem(row.id, *hold);
	}
}

/** Clocks jump, so times are compared only where the last run tells nothing: it neither succeeded nor failed. */
bool IsOver(const FailureRecord& failure, const RunRecord& last_run) {
	switch (last_run.exit_status) {
	case kDone:
		return true;
	case kAboveOffered:
	case kBeyondBudget:
	case kHeld:
		return last_run.last_success.value_or(0) > failure.time;
	default:
		return false;
	}
}

void AddHistory(StatusRow& row, int installed) {
	const std::optional<RunRecord> run = ReadRunRecord(row.id);
	if (run) {
		row.last_success = run->last_success;
	}
	row.last_failure = ReadFailureRecord(row.id);
	if (row.last_failure) {
		row.last_failure->is_over = run && IsOver(*row.last_failure, *run);
	}
	const std::optional<Rejection> rejection = ReadRejection(row.id);
	if (rejection && rejection->version > installed) {
		row.refused_version = rejection->version;
	}
}

void TellNextRun(const Services& services, const std::optional<NextRun>& next, std::time_t now) {
	if (!services.next_run) {
		return;
	}
	if (next && next->time) {
		const std::time_t until = std::max<std::time_t>(*next->time - now, 0); // A clock may have jumped over it.
		services.terminal.Say("Next scheduled run: " + FormatMoment(*next->time) + ", in " + FormatDuration(until) +
		                      ", by " + next->by + ".\n");
	} else if (next && next->is_running) {
		services.terminal.Say("The run that " + next->by + " has started is at work.\n");
	} else if (next) {
		services.terminal.Say("The next run is scheduled by " + next->by + ", which does not tell its time.\n");
	} else {
		services.terminal.Say(
		    std::string("No run is scheduled: neither by ") + kTimerUnit + " nor by " + kCronTable + ".\n");
	}
}

StatusRow Collect(const Services& services, const std::string& id) {
	StatusRow row;
	row.id = id;
	// The server comes last, when nothing local can fail any more.
	const dataupdate::InstalledRecord recorded = ReadRecorded(services, id);
	row.old_dir = FindOldPlace(services, id, recorded);
	const int installed = row.old_dir ? -1 : recorded.data_version;
	if (installed != -1) {
		row.installed_version = installed;
		row.published = PublicationTime(id, installed);
	}
	const auto config = services.config->GetDatabaseConfig(id);
	row.scheduled = config->GetScheduled();
	if (!config->GetRootDirectory().empty()) { // As it is without a volume for databases that live on one.
		row.install_dir = config->GetInstallPrefix();
	}
	if (const std::string volume = services.config->GetCurVolume(); !volume.empty()) {
		row.volume = volume;
		row.volume_problem = VolumeProblem(volume);
	}
	AddHistory(row, installed);
	row.unfinished = dataupdate::MayBeAMixture(id); // Even of a first installation, which nothing records.
	row.updating = services.checker->IsUpdating(id);
	ShowHold(row);
	AskServer(services, row);
	return row;
}

bool OffersRefused(const StatusRow& row) {
	return row.refused_version && row.refused_version == row.offered_version;
}

/** No update finishes what is held, unless the hold lets the offered version pass. */
bool MayUpdate(const StatusRow& row) {
	return !row.held || (row.held_up_to && row.offered_version && *row.offered_version <= *row.held_up_to);
}

/** What is ready is finished whatever the server offers. */
std::string WayOutOfMixture(const Services& services, const StatusRow& row) {
	std::string way_out =
	    OffersRefused(row) && !FindPrepared(services, row.id) ? WayOutOfRefusal(services, row.id) : "";
	if (!way_out.empty()) {
		return way_out;
	}
	const std::string update = MayUpdate(row) ? "\"tarndbudctl update\" or " : "";
	return " The last replacement of its files was not finished; " + update + "\"tarndbudctl fix\" installs it again.";
}

void TellReasons(const Services& services, const std::vector<StatusRow>& rows) {
	for (const StatusRow& row : rows) {
		if (row.old_dir && !row.updating) {
			services.terminal.Complain(row.id + ": Nothing is installed there, for " +
			                           DescribeOldPlace(services, row.id, *row.old_dir) +
			                           "; the next update or fix installs it there by the full package.");
		}
		if (OffersRefused(row)) {
			services.terminal.Complain(
			    row.id + ": Version " + std::to_string(*row.refused_version) +
			    " was refused by a check of this machine, so no update installs it; \"tarndbudctl "
			    "update " +
			    row.id + " --retry-refused\" asks the check again.");
		}
		if (row.unfinished && !row.updating) {
			services.terminal.Complain(row.id + ":" + WayOutOfMixture(services, row));
		}
	}
	if (!rows.front().volume_problem.empty()) {
		services.terminal.Complain(
		    "Nothing is updated, because the volume is not safe: " + rows.front().volume_problem +
		    "; it must be a directory of root that nobody else can write.");
	}
	for (const StatusRow& row : rows) {
		if (!row.updating && IsAboveOffered(row).value_or(false)) {
			services.terminal.Complain(row.id + ": Installed " + std::to_string(*row.installed_version) +
			                           " is above the offered " + std::to_string(*row.offered_version) +
			                           ", so no update changes it; ask the publisher whether that is meant.");
		}
	}
	for (const StatusRow& row : rows) {
		if (!row.hold_problem.empty()) {
			services.terminal.Complain(row.hold_problem + ".");
		}
	}
	std::set<std::string> told;
	for (const StatusRow& row : rows) {
		if (!row.offer_error.empty() && told.insert(row.offer_error).second) {
			services.terminal.Complain("The offered version is unknown. " + row.offer_error);
		}
	}
}

void Declare(CLI::App& app, Options& options) {
	app.add_option("ID", options.ids, "Databases; without one, all of them");
	app.add_flag("--json", options.json, "Print an array of objects");
	app.add_flag("--watch", options.watch, "First follow the update that another process runs, to its end");
}

ExitCode Run(const Services& services, const Options& options) {
	for (const std::string& id : options.ids) {
		services.config->CheckSupported(id);
	}
	if (options.watch && WatchUpdate(services, options) == kInterrupted) {
		return kInterrupted;
	}
	if (services.hurry) {
		services.hurry();
	}
	std::vector<StatusRow> rows;
	Json::Value failures(Json::arrayValue);
	const ExitCode code = ForEachDatabase(
	    services, options.ids.empty() ? services.config->GetDatabaseIDs() : options.ids,
	    [&](const std::string& id) {
		    rows.push_back(Collect(services, id));
		    return IsAboveOffered(rows.back()).value_or(false) ? kAboveOffered : kDone;
	    },
	    [&](const std::string& id, const Failure& failure) { failures.append(FailureToJson(id, failure)); });
	TellUnknownSettings(services);
	const std::time_t now = std::time(nullptr);
	const std::optional<NextRun> next = services.next_run ? services.next_run() : std::nullopt;
	for (StatusRow& row : rows) {
		if (next && row.scheduled) {
			row.next_run = next->time;
		}
	}
	if (options.json) {
		Json::Value array = StatusToJson(rows, now);
		for (const Json::Value& failure : failures) {
			array.append(failure);
		}
		services.terminal.Say(options.watch ? FormatJsonLine(array) : FormatJson(array));
	} else if (!rows.empty()) {
		services.terminal.Say(FormatStatusTable(rows, now) + FormatFailures(rows, now));
		TellNextRun(services, next, now);
		TellReasons(services, rows);
	} else if (code == kDone) {
		services.terminal.Say(std::string("No database is configured in ") + dataupdate::kDatabaseOverride + ".\n");
	}
	return code;
}

} // namespace

const Command kStatusCommand = {"status", "Show what is installed and what the server offers",
    "Asks the server at most once. Does not ask when the server's last answer is at most one hour old. When the "
    "server\n"
    "cannot be reached, the command does not fail: the offered version is shown as unknown, with the reason. The age\n"
    "is that of the signed package.",
    {kUnsupported, kAboveOffered}, true, false, Declare, Run};

} // namespace tarn::ctl
