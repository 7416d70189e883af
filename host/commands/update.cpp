#include "dataupdate/installation.h"
#include "host/commands/commands.h"
#include "host/library/databases.h"
#include "host/library/failure.h"
#include "host/library/recording_info_getter.h"
#include "host/library/run_record.h"
#include "host/library/safe_places.h"

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

std::string DescribeAbove(const std::string& id, int installed, int offered) {
	return "installed " + std::to_string(installed) + " is above the offered " + std::to_string(offered) +
	       "; nothing was changed. If the publisher took the later version back, \"tarndbudctl force-install " + id +
	       " 0\" installs the offered one";
}

Json::Value AboveToJson(int installed, int offered) {
	Json::Value result = MakeResult("above offered", installed);
	result["offered_version"] = offered;
	result["exit_status"] = kAboveOffered;
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
		const ExitCode code = RunRecorded(services_, id, "update", [&] { return UpdateOnVolume(id); });
		code_ = code_ == kDone ? code : code_;
		const int after = services_.info->GetDatabaseStatus(id).data_version;
		if (info_->HasRecorded()) {
			report_.Tell(id, DescribeChange(before, after), ChangeToJson(before, after));
		} else if (code == kAboveOffered) {
			report_.Tell(id, DescribeAbove(id, after, info_->Offered()), AboveToJson(after, info_->Offered()));
		} else {
			report_.Tell(id, "up to date, version " + std::to_string(after), MakeResult("up to date", after));
		}
	}
	/** How the updates so far ended that did not throw: the first other code than kDone. */
	ExitCode Code() const { return code_; }

private:
	/** The library takes a later version than the server's for up to date. */
	ExitCode UpdateOnVolume(const std::string& id) const {
		RequireNoLostVolume(services_);
		RequireSafePlaces(services_, id);
		Update::UpdateProject(id);
		if (info_->HasRecorded()) {
			return kDone;
		}
		if (const int installed = LookAt(services_, id).version; info_->Offered() <= installed) {
			return info_->Offered() < installed ? kAboveOffered : kDone;
		}
		// The library only logs that it stopped.
		RequireVolume(services_);
		throw CommandError(kFailed, id + " was not updated, though version " + std::to_string(info_->Offered()) +
		                                " is offered; the system log tells why");
	}

	const Services& services_;
	Report& report_;
	std::shared_ptr<NotingInfoGetter> info_;
	mutable ExitCode code_ = kDone;
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
	        services,
	        [&services](const std::string& id) {
		        RequireNoLostVolume(services);
		        RequireSafePlaces(services, id);
	        },
	        Change::kUpdate));
	return report.Run([&] {
		if (options.ids.empty()) {
			const ExitCode code = RunOnScheduled(services, options, [&] { update.UpdateAllProjects(); });
			return code == kDone ? update.Code() : code;
		}
		return ForEachDatabase(
		    services, options.ids,
		    [&](const std::string& id) {
			    update.UpdateProject(id);
			    return update.Code();
		    },
		    [&](const std::string& id, const Failure& failure) { report.Complain(id, failure); });
	});
}

} // namespace tarn::ctl
