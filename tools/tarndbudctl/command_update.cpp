#include "commands.h"
#include "failure.h"

#include <CLI/CLI.hpp>

namespace tarn::ctl {

namespace {

constexpr char kNoVolume[] =
    "There is no storage volume, so nothing was updated; mount one and run \"tarndbudctl init\"";

std::string DescribeChange(int before, int after) {
	const std::string version = "version " + std::to_string(after);
	return before == -1 ? "installed " + version : "updated from version " + std::to_string(before) + " to " + version;
}

/** Says for each database what became of it, and takes a missing volume for the failure that it is to a caller. */
class ReportingUpdate : public dataupdate::Update {
public:
	explicit ReportingUpdate(const Services& services)
	    : Update(services.updater, services.info, services.config), services_(services) {}

	void UpdateProject(const std::string& id) const override {
		services_.config->CheckSupported(id);
		const int before = services_.info->GetDatabaseStatus(id).data_version;
		Update::UpdateProject(id);
		const int after = services_.info->GetDatabaseStatus(id).data_version;
		if (after != before) {
			services_.terminal.Say(id + ": " + DescribeChange(before, after) + "\n");
			return;
		}
		if (services_.config->GetCurVolume().empty() && services_.info->GetRemoteInfo(id).data_version > after) {
			throw CommandError(kFailed, kNoVolume);
		}
		services_.terminal.Say(id + ": up to date, version " + std::to_string(after) + "\n");
	}

private:
	const Services& services_;
};

bool IsAnyScheduled(const Services& services) {
	for (const std::string& id : services.config->GetDatabaseIDs()) {
		if (services.config->GetDatabaseConfig(id)->GetScheduled()) {
			return true;
		}
	}
	return false;
}

ExitCode UpdateScheduled(const Services& services) {
	if (!IsAnyScheduled(services)) {
		services.terminal.Say("No database is scheduled.\n");
		return kDone;
	}
	if (services.config->GetCurVolume().empty()) {
		throw CommandError(kFailed, kNoVolume);
	}
	ReportingUpdate(services).UpdateAllProjects();
	return kDone;
}

ExitCode UpdateNamed(const Services& services, const std::vector<std::string>& ids) {
	const ReportingUpdate update(services);
	ExitCode code = kDone;
	for (const std::string& id : ids) {
		try {
			update.UpdateProject(id);
		} catch (...) {
			const Failure failure = ExplainException(*services.io);
			services.terminal.Complain(id + ": " + failure.sentence);
			code = code == kDone ? failure.code : code;
		}
	}
	return code;
}

} // namespace

void DeclareUpdate(CLI::App& app, Options& options) {
	CLI::Option* ids = app.add_option("ID", options.ids, "Databases to update");
	app.add_flag("--all", options.all, "Update the scheduled databases (the default)")->excludes(ids);
	app.add_flag("--no-wait", options.no_wait, "End with 75 when another update is running, instead of waiting for it");
}

ExitCode RunUpdate(const Services& services, const Options& options) {
	if (options.no_wait && services.checker->IsAnyUpdating()) {
		throw CommandError(kLocked, "Another update is running; try later");
	}
	return options.ids.empty() ? UpdateScheduled(services) : UpdateNamed(services, options.ids);
}

} // namespace tarn::ctl
