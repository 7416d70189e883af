#include "host/library/each_database.h"

#include "dataupdate/interruption.h"
#include "dataupdate/update.h"

namespace tarn::ctl {

ExitCode ForEachDatabase(const Services& services, const std::vector<std::string>& ids,
    const DatabaseOperation& operation,
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

ExitCode ForEachScheduled(const Services& services, const DatabaseOperation& operation) {
	ExitCode code = kDone;
	const dataupdate::Update loop(nullptr, services.info, services.config);
	loop.OperateAllProjects([&](const std::string& id) {
		const ExitCode own = operation(id);
		code = code == kDone ? own : code;
	});
	return code;
}

} // namespace tarn::ctl
