/** @file The command that tells what a release changes. */
#ifndef PUBLISHER_COMMANDS_CHANGES_COMMAND_H
#define PUBLISHER_COMMANDS_CHANGES_COMMAND_H

#include "publisher/changes/changes.h"

#include <cstddef>
#include <optional>
#include <ostream>
#include <string>

namespace CLI {
class App;
}

namespace tarn::publisher {

struct ChangesCommand {
	ChangesOptions options;
	std::optional<std::string> from; // as it was given
	std::optional<std::string> to;
	std::size_t most_files = 100; // that are listed in text
	bool json = false;
};

/** Adds the command and its options, which are read into an object that must outlive the parser. */
void AddChangesCommand(CLI::App& app, ChangesCommand& command);

/** Prints a list as the options say. */
void PrintChanges(const ChangesCommand& command, const Changes& changes, std::ostream& out);

} // namespace tarn::publisher

#endif
