/** @file Following an update that another process runs. */
#ifndef HOST_COMMANDS_WATCH_H
#define HOST_COMMANDS_WATCH_H

#include "host/commands/commands.h"

namespace tarn::ctl {

/**
 * Shows the progress of the running update until none runs any more: on one line of a terminal that is redrawn, or a
 * line for each new step, and for each ten seconds.
 *
 * @return kDone, or kInterrupted when the program was asked to end
 */
[[nodiscard]] ExitCode WatchUpdate(const Services& services, const Options& options);

} // namespace tarn::ctl

#endif
