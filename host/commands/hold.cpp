#include "host/library/hold.h"

#include "dataupdate/file_lock.h"
#include "dataupdate/interruption.h"
#include "dataupdate/paths.h"
#include "host/commands/commands.h"
#include "host/commands/report.h"
#include "host/terminal/text.h"

#include <CLI/CLI.hpp>

#include <syslog.h>

#include <exception>
#include <limits>
#include <optional>
#include <string>

namespace tarn::ctl {

namespace {

/** An update that runs looked for the hold before; after this the database is what it will stay. */
dataupdate::FileLock HoldOffUpdate(const Options& options) {
	return {dataupdate::UpdateLockPath(options.id), options.timeout_seconds};
}

Json::Value Describe(const Options& options, bool held) {
	Json::Value object(Json::objectValue);
	object["id"] = options.id;
	object["held"] = held;
	return object;
}

void Declare(CLI::App& app, Options& options) {
	app.add_option("ID", options.id, "Database")->required();
	DeclareTimeout(app, options, "Seconds to wait for a running update of the database");
	DeclareJsonObject(app, options);
}

void DeclareHold(CLI::App& app, Options& options) {
	Declare(app, options);
	app.add_option("VERSION", options.up_to, "Updates may go as far as this version; without it, nowhere")
	    ->check(CLI::Range(0, std::numeric_limits<int>::max(), "NONNEGATIVE"));
}

/** No value also where the record cannot be read, which the hold does not depend on and other commands tell. */
std::optional<int> InstalledVersion(const Services& services, const std::string& id) {
	try {
		const int version = ReadRecorded(services, id).data_version;
		return version == -1 ? std::nullopt : std::optional(version);
	} catch (const std::exception&) {
		return std::nullopt;
	}
}

/** Empty unless the database is beyond its hold already. */
std::string DescribeBeyond(const std::optional<int>& up_to, const std::optional<int>& installed) {
	return up_to && installed && *installed > *up_to ? "; the later version " + std::to_string(*installed) +
	                                                       " is installed and stays, for a hold takes nothing back"
	                                                 : "";
}

ExitCode RunHold(const Services& services, const Options& options) {
	services.config->CheckSupported(options.id);
	const dataupdate::FileLock lock = HoldOffUpdate(options);
	const dataupdate::InterruptionShield shield;
	SetHold(options.id, options.up_to);
	const std::string state = DescribeHold({options.up_to, ""});
	syslog(LOG_NOTICE, "%s is %s from now on.", options.id.c_str(), state.c_str());
	Json::Value object = Describe(options, true);
	object["held_up_to"] = OrNull(options.up_to);
	const std::optional<int> installed = InstalledVersion(services, options.id);
	object["installed_version"] = OrNull(installed);
	Answer(services, options, options.id + ": " + state + DescribeBeyond(options.up_to, installed) + "\n", object);
	return kDone;
}

ExitCode RunUnhold(const Services& services, const Options& options) {
	services.config->CheckSupported(options.id);
	const dataupdate::FileLock lock = HoldOffUpdate(options);
	const dataupdate::InterruptionShield shield;
	const bool was_held = EndHold(options.id);
	syslog(LOG_NOTICE, "%s is not held any more.", options.id.c_str());
	Json::Value object = Describe(options, false);
	object["was_held"] = was_held;
	Answer(services, options, options.id + (was_held ? ": not held any more\n" : ": was not held\n"), object);
	return kDone;
}

} // namespace

const Command kHoldCommand = {"hold", "Keep a database at its version, or let it go no further than a version",
    "Updates leave the database alone until \"tarndbudctl unhold\", and a fix repairs the version that is installed. "
    "Another\n"
    "hold of the same database takes the place of the first.",
    {kUnsupported, kLocked}, true, false, DeclareHold, RunHold};

const Command kUnholdCommand = {
    "unhold", "Let a database be updated again", nullptr, {kUnsupported, kLocked}, true, false, Declare, RunUnhold};

} // namespace tarn::ctl
