/** @file From the command line to the exit code. */
#ifndef HOST_PROGRAM_H
#define HOST_PROGRAM_H

#include "host/commands/command.h"

#include <functional>
#include <ostream>
#include <vector>

namespace tarn::ctl {

/** What surrounds a run; tests put their own in its place. */
struct Surroundings {
	std::ostream& out;
	std::ostream& err;
	bool err_is_terminal;
	std::function<Services(Terminal&)> make_services;
	std::vector<Command> commands;
};

/** Runs the command that the arguments name. Never throws: every failure is a sentence on err and an exit code. */
int RunProgram(int argc, const char* const* argv, const Surroundings& surroundings);

} // namespace tarn::ctl

#endif
