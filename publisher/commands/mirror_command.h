/** @file The program "tarndbudpub-mirror". */
#ifndef PUBLISHER_COMMANDS_MIRROR_COMMAND_H
#define PUBLISHER_COMMANDS_MIRROR_COMMAND_H

#include <ostream>
#include <string>
#include <vector>

namespace tarn::publisher {

/** Like RunCommandLine(), for the program that carries a repository to a store. */
[[nodiscard]] int RunMirrorCommand(
    const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err, bool terminal);

} // namespace tarn::publisher

#endif
