#include "host/commands/operation.h"

#include "host/library/preparation.h"
#include "host/library/run_record.h"

#include <filesystem>
#include <system_error>

namespace tarn::ctl {

ExitCode RunOperation(const Services& services, Report& report, const std::string& id, const char* operation,
    const std::function<ExitCode()>& work) {
	return RunRecorded(services, id, operation, [&] {
		FinishPrepared(services, id, [&report](const std::string& finished, int version) {
			report.Tell(finished, "finished the update to version " + std::to_string(version) + " that was killed",
			    MakeResult("finished", version));
		});
		ClearTemporaryArea(services);
		return work();
	});
}

std::string DescribeLeftBehind(const Outcome& outcome) {
	std::error_code error;
	if (!outcome.installed || !outcome.old_place || !std::filesystem::exists(*outcome.old_place, error)) {
		return "";
	}
	return "; nothing uses " + *outcome.old_place + ", where it was installed before, any more, and you may delete it";
}

std::string DescribeWayBack(const Outcome& outcome) {
	return outcome.back_from ? ", which is older than version " + std::to_string(*outcome.back_from) +
	                               ", which was installed or half installed"
	                         : "";
}

void AddWayBack(const Outcome& outcome, Json::Value& result) {
	if (outcome.back_from) {
		result["previous_version"] = *outcome.back_from;
	}
	if (outcome.installed && outcome.old_place) {
		result["previous_dir"] = *outcome.old_place;
	}
}

} // namespace tarn::ctl
