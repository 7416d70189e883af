/** @file Running a command in this program's place, as far as its caller can tell. */
#ifndef HOST_COMMANDS_CHILD_COMMAND_H
#define HOST_COMMANDS_CHILD_COMMAND_H

#include "host/library/exit_codes.h"

#include <string>
#include <vector>

namespace tarn::ctl {

/**
 * Runs a command, found along PATH, with this program's streams and environment and none of its other descriptors, and
 * waits for it. Returns its exit status, or 128 plus the signal that ended it; 127 or 126 when it is missing or cannot
 * be executed, after a sentence on the error stream. Signals that only this program gets are passed on, and the command
 * is asked to end (SIGTERM) when this program is killed.
 */
ExitCode RunChildCommand(const std::vector<std::string>& command);

} // namespace tarn::ctl

#endif
