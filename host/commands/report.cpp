#include "host/commands/report.h"

#include "dataupdate/interruption.h"
#include "host/library/failure.h"
#include "host/library/preparation.h"
#include "host/library/settings.h"
#include "host/terminal/text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

namespace tarn::ctl {

namespace {

bool IsAnyScheduled(const Services& services) {
	const std::vector<std::string> ids = services.config->GetDatabaseIDs();
	return std::any_of(ids.begin(), ids.end(),
	    [&](const std::string& id) { return services.config->GetDatabaseConfig(id)->GetScheduled(); });
}

} // namespace

Report::Report(const Services& services, const Options& options)
    : services_(services), options_(options), array_(Json::arrayValue) {}

void Report::Tell(const std::string& id, const std::string& text, Json::Value object) {
	if (!options_.json) {
		services_.terminal.Say(id + ": " + text + "\n");
		return;
	}
	object["id"] = id;
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

ExitCode Report::RunEach(const std::vector<std::string>& ids, const DatabaseOperation& operation) {
	return Run([&] {
		return ForEachDatabase(
		    services_, ids, operation, [this](const std::string& id, const Failure& failure) { Note(id, failure); });
	});
}

ExitCode Report::RunNamedOrScheduled(const DatabaseOperation& operation) {
	return options_.ids.empty() ? Run([&] { return RunScheduled(operation); }) : RunEach(options_.ids, operation);
}

ExitCode Report::RunNoted(const std::string& id, const DatabaseOperation& operation) {
	try {
		return operation(id);
	} catch (...) {
		if (!dataupdate::IsInterruptionRequested()) {
			Note(id, ExplainException(*services_.io, id));
		}
		throw;
	}
}

ExitCode Report::RunScheduled(const DatabaseOperation& operation) {
	if (!IsAnyScheduled(services_)) {
		if (!options_.json) {
			services_.terminal.Say("No database is scheduled.\n");
		}
		return kDone;
	}
	RequireVolume(services_);
	ExitCode code = kDone;
	// The library's loop ends at the first failure by throwing it.
	const dataupdate::Update loop(nullptr, services_.info, services_.config);
	loop.OperateAllProjects([&](const std::string& id) {
		const ExitCode own = RunNoted(id, operation);
		code = code == kDone ? own : code;
	});
	return code;
}

void Report::Fail(const std::string& id, const Failure& failure, const char* result) {
	services_.terminal.Complain(id + ": " + failure.sentence);
	Note(id, failure, result);
}

void Report::Note(const std::string& id, const Failure& failure, const char* result) {
	array_.append(FailureToJson(id, failure, result));
}

void Report::Print() {
	if (options_.json) {
		services_.terminal.Say(FormatJson(array_));
	}
}

Json::Value FailureToJson(const std::string& id, const Failure& failure, const char* result) {
	Json::Value object(Json::objectValue);
	object["id"] = id;
	object["result"] = result;
	object["error"] = failure.sentence;
	object["exit_status"] = failure.code;
	return object;
}

Json::Value MakeResult(const char* result, int version) {
	Json::Value object(Json::objectValue);
	object["result"] = result;
	object["version"] = version == -1 ? Json::Value() : Json::Value(version);
	return object;
}

void Answer(const Services& services, const Options& options, const std::string& text, const Json::Value& object) {
	services.terminal.Say(options.json ? FormatJson(object) : text);
}

void TellUnknownSettings(const Services& services) {
	for (const UnknownSetting& unknown : FindUnknownSettings()) {
		services.terminal.Complain(Describe(unknown));
	}
}

void RequireIdle(const Services& services, const Options& options) {
	if (options.no_wait && services.checker->IsAnyUpdating()) {
		throw CommandError(kLocked, "Another update is running; try later");
	}
}

void DeclareDatabases(CLI::App& app, Options& options, const std::string& verb, const std::string& others) {
	app.add_option("ID", options.ids, "Databases to " + verb + "; without one, " + others);
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
	app.add_option("--timeout", options.timeout_seconds, help)
	    // A range of unsigned numbers takes -1 for the largest of them.
	    ->check(CLI::Range(0L, std::numeric_limits<long>::max(), "NONNEGATIVE"))
	    ->capture_default_str();
}

} // namespace tarn::ctl
