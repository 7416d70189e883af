#include "dataupdate/update_error.h"
#include "host/commands/commands.h"
#include "host/commands/operation.h"
#include "host/commands/report.h"
#include "host/library/operation.h"
#include "host/library/preparation.h"
#include "host/library/rejection.h"

#include <CLI/CLI.hpp>

#include <string>
#include <utility>

namespace tarn::ctl {

namespace {

Outcome Reinstall(const Services& services, const std::string& id) {
	try {
		return FixDatabase(services, id);
	} catch (const dataupdate::UpdateError& error) {
		const bool is_refused = CategoryOf(error.what()) == Category::kRefusedByCheck;
		const std::string way_out = is_refused ? WayOutOfRefusal(services, id) : "";
		if (way_out.empty()) {
			throw;
		}
		throw CommandError(kRefusedHere, ExplainException(*services.io, id).sentence + way_out);
	}
}

ExitCode Fix(const Services& services, Report& report, const std::string& id) {
	services.config->CheckSupported(id);
	// The library would put temporary data beside the root directory.
	RequireVolumeFor(services, id);
	Outcome outcome;
	const ExitCode code = RunOperation(services, report, id, "fix", [&] {
		outcome = Reinstall(services, id);
		return kDone;
	});
	const std::string version = "version " + std::to_string(outcome.Version());
	if (!outcome.installed) {
		report.Tell(id, "intact, " + version, MakeResult("intact", outcome.Version()));
		return code;
	}
	const bool is_new = outcome.before == -1;
	Json::Value result = MakeResult(is_new ? "installed" : "repaired", outcome.Version());
	AddWayBack(outcome, result);
	report.Tell(id,
	    (is_new ? "installed " : "repaired, now ") + version + DescribeWayBack(outcome) + DescribeLeftBehind(outcome),
	    std::move(result));
	return code;
}

void Declare(CLI::App& app, Options& options) {
	DeclareDatabases(app, options, "fix", "the scheduled ones");
	DeclareNoWait(app, options);
	DeclareJsonArray(app, options);
}

ExitCode Run(const Services& services, const Options& options) {
	RequireIdle(services, options);
	Report report(services, options);
	return report.RunNamedOrScheduled([&](const std::string& id) { return Fix(services, report, id); });
}

} // namespace

const Command kFixCommand = {"fix", "Reinstall databases whose files are missing, changed or unknown",
    "Without ids, fixes the scheduled databases in the order of their ids, up to the first that\n"
    "fails. Leaves an intact database alone. Replaces a damaged database with the server's full package. Installs a\n"
    "database that was never installed. A database that is held gets its own version again, or the server's where the\n"
    "hold allows that.",
    {kUnsupported, kRefusedHere, kHeld, kLocked}, true, true, Declare, Run};

} // namespace tarn::ctl
