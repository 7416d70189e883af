#include "host/library/databases.h"

#include "dataupdate/interruption.h"
#include "host/library/safe_places.h"
#include "host/library/status_report.h"

#include <CLI/CLI.hpp>

#include <utility>

namespace tarn::ctl {

namespace {

constexpr char kNoVolume[] =
    "There is no storage volume, so nothing was changed; mount one and run \"tarndbudctl init\"";

bool IsAnyScheduled(const Services& services) {
	for (const std::string& id : services.config->GetDatabaseIDs()) {
		if (services.config->GetDatabaseConfig(id)->GetScheduled()) {
			return true;
		}
	}
	return false;
}

} // namespace

Report::Report(Terminal& terminal, bool json) : terminal_(terminal), json_(json), array_(Json::arrayValue) {}

void Report::Tell(const std::string& id, const std::string& text, Json::Value object) {
	if (!json_) {
		terminal_.Say(id + ": " + text + "\n");
		return;
	}
	object["id"] = id;
	array_.append(std::move(object));
}

void Report::Complain(const std::string& id, const Failure& failure) {
	terminal_.Complain(id + ": " + failure.sentence);
	Json::Value object(Json::objectValue);
	object["id"] = id;
	object["result"] = "failed";
	object["error"] = failure.sentence;
	object["exit_status"] = failure.code;
	array_.append(std::move(object));
}

ExitCode Report::Run(const std::function<ExitCode()>& work) {
	ExitCode code = kFailed;
	try {
		code = work();
	} catch (...) {
		Print();
		throw;
	}
	Print();
	return code;
}

void Report::Print() {
	if (json_) {
		terminal_.Say(FormatJson(array_));
	}
}

Json::Value MakeResult(const char* result, int version) {
	Json::Value object(Json::objectValue);
	object["result"] = result;
	object["version"] = version;
	return object;
}

void Answer(const Services& services, const Options& options, const std::string& text, const Json::Value& object) {
	services.terminal.Say(options.json ? FormatJson(object) : text);
}

ExitCode ForEachDatabase(const Services& services, const std::vector<std::string>& ids,
    const std::function<ExitCode(const std::string& id)>& operation,
    const std::function<void(const std::string& id, const Failure& failure)>& complain) {
	ExitCode code = kDone;
	for (const std::string& id : ids) {
		ExitCode own = kFailed;
		try {
			own = operation(id);
		} catch (...) {
			if (dataupdate::IsInterruptionRequested()) {
				throw;
			}
			const Failure failure = ExplainException(*services.io);
			complain(id, failure);
			own = failure.code;
		}
		code = code == kDone ? own : code;
	}
	return code;
}

ExitCode RunOnScheduled(const Services& services, const Options& options, const std::function<void()>& loop) {
	if (!IsAnyScheduled(services)) {
		if (!options.json) {
			services.terminal.Say("No database is scheduled.\n");
		}
		return kDone;
	}
	RequireVolume(services);
	loop();
	return kDone;
}

void RequireVolume(const Services& services) {
	if (services.config->GetCurVolume().empty()) {
		throw CommandError(kFailed, kNoVolume);
	}
	RequireNoLostVolume(services);
}

void RequireVolumeFor(const Services& services, const std::string& id) {
	RequireVolume(services);
	RequireSafePlaces(services, id);
}

void RequireNoLostVolume(const Services& services) {
	const std::string volume = services.config->GetCurVolume();
	if (!volume.empty() && !services.is_available(volume)) {
		throw CommandError(kFailed, "The volume " + volume +
		                                " is in use, but is not available, so nothing was changed; mount it, or list "
		                                "it in /usr/tarn/etc/volumes.conf");
	}
}

void RequireIdle(const Services& services, const Options& options) {
	if (options.no_wait && services.checker->IsAnyUpdating()) {
		throw CommandError(kLocked, "Another update is running; try later");
	}
}

void DeclareDatabases(CLI::App& app, Options& options, const std::string& verb, const std::string& all) {
	CLI::Option* ids = app.add_option("ID", options.ids, "Databases to " + verb);
	app.add_flag("--all", options.all, all + " (the default)")->excludes(ids);
}

void DeclareJsonArray(CLI::App& app, Options& options) {
	app.add_flag("--json", options.json, "Print an array of objects, one for each database");
}

void DeclareJsonObject(CLI::App& app, Options& options) {
	app.add_flag("--json", options.json, "Print an object");
}

void DeclareNoWait(CLI::App& app, Options& options) {
	app.add_flag("--no-wait", options.no_wait, "End with 75 when another update is running, instead of waiting for it");
}

void DeclareTimeout(CLI::App& app, Options& options, const std::string& help) {
	app.add_option("--timeout", options.timeout_seconds, help)->check(CLI::NonNegativeNumber)->capture_default_str();
}

} // namespace tarn::ctl
