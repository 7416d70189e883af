/**
 * @file
 * All commands, one source file each, and what a command is made of. Commands are data; the program knows none of them
 * by name. They throw what the library throws; the program explains it.
 */
#ifndef HOST_COMMANDS_COMMANDS_H
#define HOST_COMMANDS_COMMANDS_H

#include "host/library/failure.h"
#include "host/library/services.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tarn::ctl {

/** Every option and argument of every command. */
struct Options {
	bool verbose = false;
	bool json = false;
	bool no_wait = false;
	bool even_unfinished = false;
	bool even_held = false;
	std::optional<std::uint64_t> max_bytes;
	std::optional<int> up_to;
	bool force = false;
	bool retry_refused = false;
	bool watch = false;
	std::vector<std::string> ids;
	std::string id;
	std::string state;
	std::string path;
	int version = 0;
	std::vector<std::string> command; ///< What stands behind "--".
	unsigned long timeout_seconds = 600;
};

/** What else a command line ends with. */
enum class Tail {
	kNone,
	kCommand, ///< "--" and a command to run.
	kNumber,  ///< A number that may be negative.
};

/** One command. */
struct Command {
	const char* name;              ///< A word, or a group and a word: "volume show".
	const char* help;              ///< One line.
	const char* details;           ///< More, for the command's own help; null when there is no more to say.
	std::array<ExitCode, 6> codes; ///< Those that not every command has; kDone fills the rest.
	bool needs_root;
	bool shows_progress;
	void (*declare)(CLI::App& app, Options& options); ///< Null when it has no options.
	ExitCode (*run)(const Services& services, const Options& options);
	Tail tail = Tail::kNone;
};

extern const Command kInitCommand;
extern const Command kStatusCommand;
extern const Command kPlanCommand;
extern const Command kUpdateCommand;
extern const Command kCheckCommand;
extern const Command kFixCommand;
extern const Command kForceInstallCommand;
extern const Command kHoldCommand;
extern const Command kUnholdCommand;
extern const Command kImportCommand;
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
