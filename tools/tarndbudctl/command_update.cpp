#include "commands.h"
#include "databases.h"
#include "run_record.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace tarn::ctl {

namespace {

std::string DescribeChange(int before, int after) {
	const std::string version = "version " + std::to_string(after);
	return before == -1 ? "installed " + version : "updated from version " + std::to_string(before) + " to " + version;
}

/** Says for each database what became of it, and takes a missing volume for the failure that it is to a caller. */
class ReportingUpdate : public dataupdate::Update {
public:
	ReportingUpdate(const Services& services, Report& report)
	    : Update(services.updater, services.info, services.config), services_(services), report_(report) {}

	void UpdateProject(const std::string& id) const override {
		services_.config->CheckSupported(id);
		const int before = services_.info->GetDatabaseStatus(id).data_version;
		RunRecorded(services_, id, "update", [&] { UpdateOnVolume(id, before); });
		const int after = services_.info->GetDatabaseStatus(id).data_version;
		if (after == before) {
			report_.Tell(id, "up to date, version " + std::to_string(after), MakeResult("up to date", after));
			return;
		}
		Json::Value result = MakeResult(before == -1 ? "installed" : "updated", after);
		if (before != -1) {
			result["previous_version"] = before;
		}
		report_.Tell(id, DescribeChange(before, after), result);
	}

private:
	void UpdateOnVolume(const std::string& id, int before) const {
		RequireNoLostVolume(services_);
		Update::UpdateProject(id);
		const int after = services_.info->GetDatabaseStatus(id).data_version;
		// The server need not be asked when there is a volume.
		const bool has_volume = !services_.config->GetCurVolume().empty();
		if (after == before && !has_volume && services_.info->GetRemoteInfo(id).data_version > after) {
			RequireVolume(services_);
		}
	}

	const Services& services_;
	Report& report_;
};

} // namespace

void DeclareUpdate(CLI::App& app, Options& options) {
	DeclareDatabases(app, options, "update", "Update the scheduled databases");
	DeclareNoWait(app, options);
	DeclareJsonArray(app, options);
}

ExitCode RunUpdate(const Services& services, const Options& options) {
	RequireIdle(services, options);
	Report report(services.terminal, options.json);
	const ReportingUpdate update(services, report);
	return report.Run([&] {
		if (options.ids.empty()) {
			return RunOnScheduled(services, options, [&] { update.UpdateAllProjects(); });
		}
		return ForEachDatabase(
		    services, options.ids,
		    [&](const std::string& id) {
			    update.UpdateProject(id);
			    return kDone;
		    },
		    [&](const std::string& id, const Failure& failure) { report.Complain(id, failure); });
	});
}

} // namespace tarn::ctl
