/** @file What the command line says beyond options: a command to run, and numbers below zero. */
#ifndef HOST_ARGUMENTS_H
#define HOST_ARGUMENTS_H

#include "host/commands/command.h"

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

} // namespace tarn::ctl

#endif
