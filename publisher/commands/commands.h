/** @file The publisher's commands: what each of them takes, prints to, and runs when it is given. */
#ifndef PUBLISHER_COMMANDS_COMMANDS_H
#define PUBLISHER_COMMANDS_COMMANDS_H

#include "publisher/packages/observer.h"

#include <functional>
#include <ostream>

namespace CLI {
class App;
}

namespace tarn::publisher {

/** Where a command's results and complaints go. */
struct Streams {
	std::ostream& out;
	std::ostream& err;
	bool terminal; // whether err is a terminal
};

/**
 * Calls an operation with an observer that sends warnings to the stream of complaints. On a terminal it also shows the
 * progress: on one line, rewritten a few times a second, and removed when the operation is over.
 */
void WithProgress(const Streams& streams, const std::function<void(const PublishObserver& observer)>& operation);

/** Runs a command with the options that were given, and prints its result; returns an ExitCode. */
using Command = std::function<int(const Streams& streams)>;

/** Runs a command, and returns its ExitCode; what it throws becomes a line that begins with the program's name. */
[[nodiscard]] int RunReporting(const char* program, const Command& command, const Streams& streams);

// Each adds commands and their options to a parser, which sets the command that was given.
void AddKeyCommands(CLI::App& app, Command& given);
void AddPublishCommands(CLI::App& app, Command& given);
void AddChangesCommand(CLI::App& app, Command& given);
void AddExportCommand(CLI::App& app, Command& given);
void AddSiteCommand(CLI::App& app, Command& given);
void AddPackageCommands(CLI::App& app, Command& given);
void AddRepositoryCommands(CLI::App& app, Command& given);

} // namespace tarn::publisher

#endif
