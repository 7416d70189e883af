/** @file All commands, one source file each. They throw what the library throws; the program explains it. */
#ifndef HOST_COMMANDS_COMMANDS_H
#define HOST_COMMANDS_COMMANDS_H

#include "host/commands/command.h"

#include <vector>

namespace tarn::ctl {

extern const Command kInitCommand;
extern const Command kStatusCommand;
extern const Command kUpdateCommand;
extern const Command kCheckCommand;
extern const Command kFixCommand;
extern const Command kForceInstallCommand;
extern const Command kReadCommand;
extern const Command kRefreshCommand;
extern const Command kMetricsCommand;
extern const Command kScheduleCommand;
extern const Command kVolumeShowCommand;
extern const Command kVolumeMountedCommand;
extern const Command kVolumeUnmountingCommand;

/** In the order of the help. */
std::vector<Command> AllCommands();

} // namespace tarn::ctl

#endif
