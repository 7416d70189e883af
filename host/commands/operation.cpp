#include "host/commands/operation.h"

#include "host/library/record_keeper.h"

namespace tarn::ctl {

ExitCode RunOperation(const Services& services, Report& report, const std::string& id, const char* operation,
    const std::function<ExitCode()>& work) {
	return RunRecorded(services, id, operation, [&] {
		FinishPrepared(services, id, [&report](const std::string& finished, int version) {
			report.Tell(finished, "finished the update to version " + std::to_string(version) + " that was killed",
			    MakeResult("finished", version));
		});
		return work();
	});
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
}

} // namespace tarn::ctl
