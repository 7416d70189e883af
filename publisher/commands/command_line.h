/** @file The publisher's two programs and their exit codes. */
#ifndef PUBLISHER_COMMANDS_COMMAND_LINE_H
#define PUBLISHER_COMMANDS_COMMAND_LINE_H

#include <ostream>
#include <string>
#include <vector>

namespace tarn::publisher {

enum ExitCode : int {
	kDone = 0,
	kFailed = 1,
	kUsage = 2,
	kBroken = 3, ///< of check-repo and the mirror: devices fail, or take the long way
	kUntidy = 4  ///< of check-repo: something lies around
};

/**
 * Runs one command of the publisher.
 *
 * @param arguments  without the program's name
 * @param out        results
 * @param err        warnings, progress, and one plain sentence when it fails
 * @param terminal   whether err is a terminal, which gets a progress line
 * @return an ExitCode
 */
[[nodiscard]] int RunCommandLine(
    const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err, bool terminal);

/** The same for the program that carries a repository to a store. */
[[nodiscard]] int RunMirrorCommand(
    const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err, bool terminal);

} // namespace tarn::publisher

#endif
