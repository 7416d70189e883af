#include "host/commands/commands.h"

namespace tarn::ctl {

std::vector<Command> AllCommands() {
	return {kInitCommand, kStatusCommand, kUpdateCommand, kCheckCommand, kFixCommand, kForceInstallCommand,
	    kImportCommand, kReadCommand, kRefreshCommand, kMetricsCommand, kScheduleCommand, kVolumeShowCommand,
	    kVolumeMountedCommand, kVolumeUnmountingCommand};
}

} // namespace tarn::ctl
