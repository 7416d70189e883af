#include "dataupdate/file_lock.h"
#include "dataupdate/interruption.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "host/commands/commands.h"
#include "host/commands/report.h"

#include <CLI/CLI.hpp>

#include <string>

namespace tarn::ctl {

namespace {

constexpr char kOn[] = "on";

/**
 * What the override file holds. It stands for the whole list of databases, so the first setting written there would
 * take all other databases away; it begins with a section for each of them.
 */
Json::Value ReadOverride(const Services& services) {
	try {
		return services.io->ReadJson(dataupdate::kDatabaseOverride);
	} catch (const dataupdate::UpdateError&) {
		Json::Value sections(Json::objectValue);
		for (const std::string& id : services.config->GetDatabaseIDs()) {
			sections[id] = Json::Value(Json::objectValue);
		}
		return sections;
	}
}

/** As DatabaseConfig::SetScheduled(), but an update that runs meanwhile never finds half a file, or an empty list. */
void SetScheduled(const Services& services, const std::string& id, bool scheduled) {
	const dataupdate::FileLock lock(dataupdate::kConfigLock, dataupdate::kLockTimeout);
	Json::Value sections = ReadOverride(services);
	sections[id]["auto_update"] = scheduled;
	services.io->WriteJson(dataupdate::kDatabaseOverride, sections);
}

void Declare(CLI::App& app, Options& options) {
	app.add_option("ID", options.id, "Database")->required();
	app.add_option("STATE", options.state, "Whether scheduled updates include it")
	    ->required()
	    ->check(CLI::IsMember({kOn, "off"}));
	DeclareJsonObject(app, options);
}

ExitCode Run(const Services& services, const Options& options) {
	services.config->CheckSupported(options.id);
	const bool scheduled = options.state == kOn;
	const dataupdate::InterruptionShield shield;
	SetScheduled(services, options.id, scheduled);
	Json::Value object(Json::objectValue);
	object["id"] = options.id;
	object["scheduled"] = scheduled;
	Answer(services, options, options.id + (scheduled ? ": scheduled\n" : ": not scheduled\n"), object);
	return kDone;
}

} // namespace

const Command kScheduleCommand = {"schedule", "Include a database in scheduled updates, or exclude it", nullptr,
    {kUnsupported, kLocked}, true, false, Declare, Run};

} // namespace tarn::ctl
