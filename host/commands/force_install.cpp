#include "dataupdate/update_error.h"
#include "host/commands/commands.h"
#include "host/commands/operation.h"
#include "host/commands/report.h"
#include "host/library/hold.h"
#include "host/library/operation.h"
#include "host/library/preparation.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <optional>
#include <string>

namespace tarn::ctl {

namespace {

/** The version that will be installed; one below 0 could not be told from nothing installed. */
int Target(const Services& services, const Options& options) {
	if (options.version > 0) {
		return options.version;
	}
	const std::int64_t target = std::int64_t{services.info->GetRemoteInfo(options.id).data_version} + options.version;
	if (target < 0) {
		throw CommandError(kFailed, "There is no version " + std::to_string(target) + "; the server's version is " +
		                                std::to_string(target - options.version));
	}
	return static_cast<int>(target);
}

/** The link was made by replacing one number by another, which can hit more than what was meant. */
Outcome Install(const Services& services, const Options& options, int target) {
	const int offered = services.info->GetRemoteInfo(options.id).data_version;
	try {
		return ForceDatabase(services, options.id, options.version, target, options.even_held);
	} catch (const dataupdate::UpdateError& error) {
		if (target == offered || CategoryOf(error.what()) != Category::kDownload) {
			throw;
		}
		throw MadeLinkError(error.what(), offered, target);
	}
}

/** What replaces the version again, and when. */
std::string DescribeWayOn(const std::string& id, int installed) {
	const std::optional<Hold> hold = ReadHold(id);
	if (!hold) {
		return "\"update\" installs a later version when the server has one, and \"fix\" the server's version "
		       "should it find damage";
	}
	return "as the database is held, \"fix\" installs version " + std::to_string(installed) +
	       (hold->up_to ? " again, or what the server has if the hold allows it," : " again") +
	       " should it find damage";
}

void Declare(CLI::App& app, Options& options) {
	app.add_option("ID", options.id, "Database")->required();
	app.add_option("VERSION", options.version, "A version; 0: the server's; -N: N versions before the server's")
	    ->required();
	app.add_flag("--even-held", options.even_held, "Install it though the database is held; the hold remains");
	DeclareNoWait(app, options);
	DeclareJsonArray(app, options);
}

ExitCode Run(const Services& services, const Options& options) {
	services.config->CheckSupported(options.id);
	RequireVolumeFor(services, options.id);
	RequireIdle(services, options);
	const int target = Target(services, options);
	Report report(services, options);
	const auto force = [&](const std::string& id) {
		Outcome outcome;
		const ExitCode code = RunOperation(services, report, id, "force-install", [&] {
			outcome = Install(services, options, target);
			return kDone;
		});
		const int installed = outcome.Version();
		report.Tell(id,
		    "version " + std::to_string(installed) +
		        " was unpacked over what was there, and files of before that its package lacks stay; " +
		        DescribeWayOn(id, installed) + DescribeLeftBehind(outcome),
		    MakeResult("forced", installed));
		return code;
	};
	return report.Run([&] { return report.RunNoted(options.id, force); });
}

} // namespace

const Command kForceInstallCommand = {"force-install", "Install a chosen version over what is there",
    "Makes the version's link from the server's link: replaces the version number wherever it occurs, also in the host "
    "and\n"
    "the port. Unpacks the package over the installed files, keeps installed files that are not in the package, and "
    "runs no\n"
    "hooks. Afterwards, update installs a later version when the server has one, and fix the server's version should\n"
    "it find damage; while the database is held, fix installs this version again, or the server's where the\n"
    "hold allows that. Refuses a database that is held.",
    {kUnsupported, kHeld, kLocked}, true, true, Declare, Run, Tail::kNumber};

} // namespace tarn::ctl
