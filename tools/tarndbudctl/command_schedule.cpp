#include "commands.h"
#include "databases.h"

#include <dataupdate/file_lock.h>
#include <dataupdate/interruption.h>
#include <dataupdate/paths.h>
#include <dataupdate/update_error.h>

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace tarn::ctl {

namespace {

constexpr char kOn[] = "on";

/**
 * An override file stands for the whole list of databases, so the first setting written there would take all other
 * databases away. It begins with a section for each of them, in one write.
 */
void KeepDatabaseList(const Services& services) {
	const dataupdate::FileLock lock(dataupdate::kConfigLock, dataupdate::kLockTimeout);
	const std::vector<std::string> ids = services.config->GetDatabaseIDs();
	try {
		services.io->ReadJson(dataupdate::kDatabaseOverride);
	} catch (const dataupdate::UpdateError&) {
		Json::Value sections(Json::objectValue);
		for (const std::string& id : ids) {
			sections[id] = Json::Value(Json::objectValue);
		}
		services.io->WriteJson(dataupdate::kDatabaseOverride, sections);
	}
}

} // namespace

void DeclareSchedule(CLI::App& app, Options& options) {
	app.add_option("ID", options.id, "Database")->required();
	app.add_option("STATE", options.state, "Whether scheduled updates include it")
	    ->required()
	    ->check(CLI::IsMember({kOn, "off"}));
	DeclareJsonObject(app, options);
}

ExitCode RunSchedule(const Services& services, const Options& options) {
	services.config->CheckSupported(options.id);
	const bool scheduled = options.state == kOn;
	const dataupdate::InterruptionShield shield;
	KeepDatabaseList(services);
	services.config->GetDatabaseConfig(options.id)->SetScheduled(scheduled);
	Json::Value object(Json::objectValue);
	object["id"] = options.id;
	object["scheduled"] = scheduled;
	Answer(services, options, options.id + (scheduled ? ": scheduled\n" : ": not scheduled\n"), object);
	return kDone;
}

} // namespace tarn::ctl
