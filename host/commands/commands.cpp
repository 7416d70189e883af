#include "host/commands/commands.h"

namespace tarn::ctl {

std::vector<Command> AllCommands() {
	return {kInitCommand, kStatusCommand, kPlanCommand, kUpdateCommand, kCheckCommand, kFixCommand,
	    kForceInstallCommand, kHoldCommand, kUnholdCommand, kImportCommand, kReadCommand, kRefreshCommand,
	    kMetricsCommand, kScheduleCommand, kVolumeShowCommand, kVolumeMountedCommand, kVolumeUnmountingCommand};
}

} // namespace tarn::ctl
