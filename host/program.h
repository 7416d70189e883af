/** @file The program: from arguments to an exit code. */
#ifndef HOST_PROGRAM_H
#define HOST_PROGRAM_H

#include "host/commands/commands.h"

#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace tarn::ctl {

struct Arguments {
	std::vector<std::string> own;
	std::vector<std::string> command; ///< What stands behind "--", for a command that takes one.
};

/**
 * Takes apart what a general parser would spoil: words behind "--" that only look like lists or options, and "-3",
 * which is a number for a command that takes one.
 */
Arguments SplitArguments(std::vector<std::string> words, const std::vector<Command>& commands);

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
