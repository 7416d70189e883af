#include "dataupdate/download_source.h"
#include "dataupdate/update_error.h"
#include "host/commands/commands.h"
#include "host/commands/update.h"
#include "host/library/checked_info_getter.h"
#include "host/library/installed_package.h"
#include "host/library/kit_offer.h"

#include <CLI/CLI.hpp>
#include <boost/algorithm/cxx11/any_of.hpp>
#include <boost/algorithm/string/join.hpp>

#include <syslog.h>

#include <algorithm>
#include <iterator>
#include <optional>

namespace tarn::ctl {

using boost::algorithm::any_of_equal;
using boost::algorithm::join;

namespace {

/** What is not said of the kit by itself: which file it came from, whose packages were refused. */
[[noreturn]] void ExplainImport(const Services& services, const std::string& path) {
	const Failure failure = ExplainException(*services.io);
	const std::optional<PackageRefusal> refusal = LastPackageRefusal();
	if (failure.category == Category::kPackageRefused && refusal && refusal->not_asked_for) {
		throw CommandError(failure.code, "The kit " + path + " holds another package than its document says: " +
		                                     refusal->reason + "; nothing was changed");
	}
	if (failure.category == Category::kPackageRefused || failure.category == Category::kPackageUnusable) {
		throw CommandError(failure.code, "The kit " + path + " cannot be used: " + failure.sentence);
	}
	throw;
}

/**
 * With a later version installed, the server's document of before would tell for an hour that the device is above what
 * is offered. It goes before anything is installed, because another command may finish an import that was killed.
 */
void DropEarlierDocument(const Services& services, const std::string& id) {
	if (services.info->GetRemoteInfo(id).data_version <= ReadInstalled(services, id).data_version) {
		return;
	}
	try {
		DropCachedDocument();
	} catch (const CommandError& error) {
		syslog(LOG_WARNING, "%s", error.what()); // No reason to leave the device without new data.
	}
}

Outcome Install(const Services& services, const Options& options, const std::string& id) {
	try {
		DropEarlierDocument(services, id);
		return ImportDatabase(
		    services, id, options.force, options.retry_refused ? RefusedVersion::kRetry : RefusedVersion::kLeave);
	} catch (const dataupdate::UpdateError&) {
		ExplainImport(services, options.path);
	}
}

std::string DescribeAbove(const std::string& /*id*/, int installed, int offered) {
	return "installed " + std::to_string(installed) + " is above the kit's " + std::to_string(offered) +
	       "; nothing was changed. \"import --force\" installs the kit's version";
}

/** The databases to import: those that are named, or all of the kit that this device has. */
std::vector<std::string> Choose(const Services& services, const Options& options, const KitOffer& kit) {
	if (!options.ids.empty()) {
		return options.ids;
	}
	const std::vector<std::string> offered = kit.Ids();
	const std::vector<std::string> configured = services.config->GetDatabaseIDs();
	std::vector<std::string> ids;
	std::copy_if(offered.begin(), offered.end(), std::back_inserter(ids),
	    [&](const std::string& id) { return any_of_equal(configured, id); });
	if (ids.empty()) {
		throw CommandError(kUnsupported,
		    "The kit " + options.path + " is for " + join(offered, ", ") + ", and no such database is configured here");
	}
	return ids;
}

void RequireOffered(const KitOffer& kit, const Options& options, const std::string& id) {
	if (const std::vector<std::string> offered = kit.Ids(); !any_of_equal(offered, id)) {
		throw CommandError(kFailed, "The kit " + options.path + " has no package of " + id + ", but is for " +
		                                (offered.empty() ? "no database" : join(offered, ", ")));
	}
}

void Declare(CLI::App& app, Options& options) {
	app.add_option("FILE", options.path, "Kit that \"tarndbudpub export\" has made")->required();
	app.add_option("ID", options.ids, "Databases to install; by default all of the kit that are configured");
	app.add_flag("--force", options.force, "Install an older version than the installed one as well");
	app.add_flag(
	    "--retry-refused", options.retry_refused, "Also try versions that a check of this machine refused before");
	DeclareNoWait(app, options);
	DeclareJsonArray(app, options);
}

ExitCode Run(const Services& services, const Options& options) {
	RequireIdle(services, options);
	const KitOffer kit(options.path);
	const Services own = kit.InPlaceOfServer(services);
	const dataupdate::DownloadSourceScope scope(kit.Packages());
	Report report(own, options);
	const Offerer offerer = {"import",
	    [&](const Services& /*services*/, const std::string& id) { return Install(own, options, id); }, DescribeAbove};
	return report.RunEach(Choose(services, options, kit), [&](const std::string& id) {
		services.config->CheckSupported(id);
		RequireOffered(kit, options, id);
		return InstallOffered(own, report, id, offerer);
	});
}

} // namespace

const Command kImportCommand = {"import", "Install databases from a kit, without a network",
    "A kit is one file with packages, which \"tarndbudpub export\" makes. Does with it what update does with the "
    "server:\n"
    "the same signatures, locks, hooks, diff packages and records. Asks no server. Drops the cached document of the "
    "server\n"
    "before it installs a later version. Leaves a later version than the kit's alone.",
    {kUnsupported, kAboveOffered, kRefusedHere, kHeld, kLocked}, true, true, Declare, Run};

} // namespace tarn::ctl
