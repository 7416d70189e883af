#include "commands.h"
#include "databases.h"
#include "failure.h"
#include "recording_info_getter.h"
#include "run_record.h"

#include <dataupdate/replacement_mark.h>

#include <CLI/CLI.hpp>

#include <memory>
#include <string>
#include <utility>

namespace tarn::ctl {

namespace {

struct Installed {
	bool is_unfinished;
	int version; ///< -1 for what is unfinished, because the library installs it anew.
};

Installed LookAt(const Services& services, const std::string& id) {
	const bool is_unfinished = dataupdate::IsReplacementMarked(id);
	return {is_unfinished, is_unfinished ? -1 : services.info->GetDatabaseStatus(id).data_version};
}

std::string DescribeChange(const Installed& before, int after) {
	const std::string version = "version " + std::to_string(after);
	if (before.version != -1) {
		return "updated from version " + std::to_string(before.version) + " to " + version;
	}
	return (before.is_unfinished ? "reinstalled " : "installed ") + version;
}

Json::Value ChangeToJson(const Installed& before, int after) {
	if (before.version == -1) {
		return MakeResult(before.is_unfinished ? "reinstalled" : "installed", after);
	}
	Json::Value result = MakeResult("updated", after);
	result["previous_version"] = before.version;
	return result;
}

/** Says for each database what became of it, and takes a missing volume for the failure that it is to a caller. */
class ReportingUpdate : public dataupdate::Update {
public:
	ReportingUpdate(const Services& services, Report& report, std::shared_ptr<NotingInfoGetter> info)
	    : Update(services.updater, info, services.config),
	      services_(services),
	      report_(report),
	      info_(std::move(info)) {}

	void UpdateProject(const std::string& id) const override {
		services_.config->CheckSupported(id);
		const Installed before = LookAt(services_, id);
		info_->Forget();
		RunRecorded(services_, id, "update", [&] { UpdateOnVolume(id); });
		const int after = services_.info->GetDatabaseStatus(id).data_version;
		if (info_->HasRecorded()) {
			report_.Tell(id, DescribeChange(before, after), ChangeToJson(before, after));
		} else {
			report_.Tell(id, "up to date, version " + std::to_string(after), MakeResult("up to date", after));
		}
	}

private:
	void UpdateOnVolume(const std::string& id) const {
		RequireNoLostVolume(services_);
		Update::UpdateProject(id);
		if (info_->HasRecorded() || info_->Offered() <= LookAt(services_, id).version) {
			return;
		}
		// The library only logs that it stopped.
		RequireVolume(services_);
		throw CommandError(kFailed, id + " was not updated, though version " + std::to_string(info_->Offered()) +
		                                " is offered; the system log tells why");
	}

	const Services& services_;
	Report& report_;
	std::shared_ptr<NotingInfoGetter> info_;
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
	const ReportingUpdate update(services, report,
	    std::make_shared<RecordingInfoGetter>(
	        services, [&services] { RequireNoLostVolume(services); }, Change::kUpdate));
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
