#include "host/commands/commands.h"
#include "host/library/databases.h"
#include "host/library/recording_info_getter.h"
#include "host/library/run_record.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace tarn::ctl {

namespace {

/** Says for each database whether it had to be repaired. */
class ReportingFix : public dataupdate::Update {
public:
	ReportingFix(const Services& services, Report& report, std::shared_ptr<NotingInfoGetter> info)
	    : Update(services.updater, info, services.config),
	      services_(services),
	      report_(report),
	      info_(std::move(info)) {}

	void FixProject(const std::string& id) const override {
		services_.config->CheckSupported(id);
		// The library would put temporary data beside the root directory.
		RequireVolumeFor(services_, id);
		const int before = services_.info->GetDatabaseStatus(id).data_version;
		info_->Forget();
		RunRecorded(services_, id, "fix", [&] {
			Update::FixProject(id);
			return kDone;
		});
		Tell(id, before);
	}

private:
	void Tell(const std::string& id, int before) const {
		const int after = services_.info->GetDatabaseStatus(id).data_version;
		const std::string version = "version " + std::to_string(after);
		if (!info_->HasRecorded()) {
			report_.Tell(id, "intact, " + version, MakeResult("intact", after));
			return;
		}
		const bool is_new = before == -1;
		report_.Tell(id, (is_new ? "installed " : "repaired, now ") + version,
		    MakeResult(is_new ? "installed" : "repaired", after));
	}

	const Services& services_;
	Report& report_;
	std::shared_ptr<NotingInfoGetter> info_;
};

} // namespace

void DeclareFix(CLI::App& app, Options& options) {
	DeclareDatabases(app, options, "fix", "Fix the scheduled databases");
	DeclareNoWait(app, options);
	DeclareJsonArray(app, options);
}

ExitCode RunFix(const Services& services, const Options& options) {
	RequireIdle(services, options);
	Report report(services.terminal, options.json);
	const ReportingFix fix(services, report,
	    std::make_shared<RecordingInfoGetter>(
	        services, [&services](const std::string& id) { RequireVolumeFor(services, id); }, Change::kFix));
	return report.Run([&] {
		if (options.ids.empty()) {
			return RunOnScheduled(services, options, [&] { fix.FixAllProjects(); });
		}
		return ForEachDatabase(
		    services, options.ids,
		    [&](const std::string& id) {
			    fix.FixProject(id);
			    return kDone;
		    },
		    [&](const std::string& id, const Failure& failure) { report.Complain(id, failure); });
	});
}

} // namespace tarn::ctl
