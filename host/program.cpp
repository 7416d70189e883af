#include "host/program.h"

#include "base/nearest.h"
#include "base/usage.h"
#include "dataupdate/interruption.h"
#include "dataupdate/paths.h"
#include "host/library/failure.h"
#include "host/library/preparation.h"
#include "host/library/settings.h"
#include "host/terminal/progress.h"
#include "host/terminal/terminal.h"

#include <CLI/CLI.hpp>

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

namespace tarn::ctl {

namespace {

constexpr char kSeparator[] = "--";

/** The command that is named; a group's commands take neither. */
Tail TailOf(const std::vector<std::string>& words, const std::vector<Command>& commands) {
	const auto name =
	    std::find_if(words.begin(), words.end(), [](const std::string& word) { return word.rfind('-', 0) != 0; });
	const auto command = std::find_if(commands.begin(), commands.end(),
	    [&](const Command& known) { return name != words.end() && *name == known.name; });
	return command == commands.end() ? Tail::kNone : command->tail;
}

bool IsNegativeNumber(const std::string& word) {
	return word.size() > 1 && word.front() == '-' && word.find_first_not_of("0123456789", 1) == std::string::npos;
}

constexpr char kProgram[] = "tarndbudctl";
constexpr char kEndedEarly[] = "Interrupted; nothing is left half done.";
constexpr char kExitStatusHelp[] = "Exit status:";
constexpr char kSignalsHelp[] =
    "A signal ends the program after it has cleaned up. Everything that happens is written to "
    "the system log as \"tarndbudctl\".";

struct Meaning {
	ExitCode code;
	const char* text;
};

constexpr Meaning kMeanings[] = {
    {kDone, "done"},
    {kFailed, "failed"},
    {kUsage, "wrong usage"},
    {kUnsupported, "the database is not configured"},
    {kFixNeeded, "a fix is needed"},
    {kAboveOffered, "a later version is installed than the server, or the kit, offers"},
    {kRefusedHere, "a check of this machine refused the new version; nothing was replaced"},
    {kBeyondBudget, "more would have to be downloaded than is allowed"},
    {kHeld, "the database is held at its version"},
    {kLocked, "a lock was not obtained, or files are half replaced; try again later"},
    {kNotExecutable, "the command cannot be executed"},
    {kNotFound, "there is no such command"},
};
constexpr char kCommandsOwnHelp[] =
    "\nAny other exit status is that of the command, or 128 plus the signal that ended it.";

/** The exit codes that every command has, and of the others those that are wanted. */
template<typename Wanted>
std::string DescribeCodes(const Wanted& is_wanted) {
	std::string text = kExitStatusHelp;
	for (const Meaning& meaning : kMeanings) {
		if (meaning.code <= kUsage || is_wanted(meaning.code)) {
			const std::string code = std::to_string(meaning.code);
			text += "\n" + std::string(5 - code.size(), ' ') + code + "  " + meaning.text;
		}
	}
	return text;
}

std::string Footer(const Command& command) {
	const std::string details = command.details == nullptr ? "" : std::string(command.details) + "\n\n";
	const auto has = [&](ExitCode code) {
		return std::find(command.codes.begin(), command.codes.end(), code) != command.codes.end();
	};
	return details + DescribeCodes(has) + (command.tail == Tail::kCommand ? kCommandsOwnHelp : "") + "\n" +
	       kSignalsHelp;
}

/** The usage of a command that runs another one. */
class TailFormatter : public CLI::Formatter {
public:
	std::string make_usage(const CLI::App* app, std::string name) const override {
		std::string usage = CLI::Formatter::make_usage(app, std::move(name));
		return usage.insert(usage.find_last_not_of('\n') + 1, " -- COMMAND...");
	}
};

/** The system log, with a copy on the error stream when asked for. */
class Log {
public:
	explicit Log(bool verbose) { openlog(kProgram, LOG_PID | (verbose ? LOG_PERROR : 0), LOG_DAEMON); }
	~Log() { closelog(); }
	Log(const Log&) = delete;
	Log& operator=(const Log&) = delete;
};

/** The application to which a command belongs: the program, or its group, made when the first of the group comes. */
CLI::App& Group(CLI::App& app, const std::string& name) {
	const auto known = app.get_subcommands([&](const CLI::App* candidate) { return candidate->get_name() == name; });
	if (!known.empty()) {
		return *known.front();
	}
	CLI::App* group = app.add_subcommand(name, "Commands about the " + name);
	group->require_subcommand(1);
	return *group;
}

void Declare(CLI::App& app, const Command& command, Options& options, const Command*& chosen) {
	const std::string name = command.name;
	const std::size_t blank = name.find(' ');
	CLI::App& parent = blank == std::string::npos ? app : Group(app, name.substr(0, blank));
	CLI::App* own = parent.add_subcommand(name.substr(blank == std::string::npos ? 0 : blank + 1), command.help);
	own->callback([&command, &chosen] { chosen = &command; });
	own->footer(Footer(command));
	if (command.tail == Tail::kCommand) {
		own->formatter(std::make_shared<TailFormatter>());
	}
	if (command.declare != nullptr) {
		command.declare(*own, options);
	}
}

/** Locks cannot be taken by others than root, and each of them would be a failure of its own. */
void RequireRoot() {
	const bool exists = mkdir(dataupdate::kLockDirectory, 0755) == 0 || errno == EEXIST;
	if (!exists || access(dataupdate::kLockDirectory, W_OK | X_OK) != 0) {
		throw CommandError(kFailed, std::string("This command must be run as root: ") + dataupdate::kLockDirectory +
		                                " cannot be written (" + std::strerror(errno) + ")");
	}
}

ExitCode RunCommand(const Command& command, const Options& options, const Services& services) {
	if (command.needs_root) {
		RequireRoot();
	}
	RequireUsableSettings(*services.io);
	if (command.needs_root) {
		PrepareLockFiles(services);
	}
	if (command.shows_progress) {
		LogUnknownSettings(); // By what runs unattended, too.
	}
	std::optional<ProgressLine> progress;
	if (command.shows_progress) {
		progress.emplace(services.terminal, services.terminal.Draws() && !options.verbose && !options.json);
	}
	return command.run(services, options);
}

ExitCode RunGuarded(const Command& command, const Options& options, const Surroundings& surroundings) {
	const Log log(options.verbose);
	Terminal terminal(surroundings.out, surroundings.err, surroundings.err_is_terminal);
	const Services services = surroundings.make_services(terminal);
	ExitCode code = kFailed;
	try {
		code = RunCommand(command, options, services);
	} catch (...) {
		// What failed on its own is told as such, but the program still ends by the signal.
		const bool is_interrupted = dataupdate::IsInterruptionRequested();
		const Failure failure = is_interrupted && IsEarlyEnd()
		                            ? Failure{Category::kInterrupted, kInterrupted, kEndedEarly}
		                            : ExplainException(*services.io);
		terminal.Complain(failure.sentence);
		code = is_interrupted ? kInterrupted : failure.code;
	}
	if (!terminal.Good()) {
		terminal.Complain("The output could not be written.");
		return code == kDone ? kFailed : code;
	}
	return code;
}

/** The parser takes its words from the end. */
void Parse(CLI::App& app, int argc, const char* const* argv, const std::vector<Command>& commands, Options& options) {
	Arguments arguments = SplitArguments({argv + std::min(argc, 1), argv + argc}, commands);
	options.command = std::move(arguments.command);
	std::reverse(arguments.own.begin(), arguments.own.end());
	app.parse(std::move(arguments.own));
}

/** A wrong command line gets a sentence and the usage of the command that it names. */
int RefuseUsage(const CLI::App& app, const CLI::ParseError& error, const std::vector<std::string>& words,
    const Surroundings& surroundings) {
	std::vector<std::string> names;
	for (const Command& command : surroundings.commands) {
		names.emplace_back(command.name);
	}
	const std::string unknown = DescribeUnknownCommand(words, names);
	const std::string sentence = unknown.empty() ? error.what() : unknown;
	surroundings.err << DescribeWrongUsage(kProgram, sentence, app.help());
	return kUsage;
}

} // namespace

Arguments SplitArguments(std::vector<std::string> words, const std::vector<Command>& commands) {
	Arguments arguments;
	const Tail tail = TailOf(words, commands);
	if (tail == Tail::kCommand) {
		const auto separator = std::find(words.begin(), words.end(), kSeparator);
		if (separator != words.end()) {
			arguments.command.assign(separator + 1, words.end());
			words.erase(separator, words.end());
		}
	}
	if (tail == Tail::kNumber && std::find(words.begin(), words.end(), kSeparator) == words.end()) {
		const auto numbers = std::stable_partition(
		    words.begin(), words.end(), [](const std::string& word) { return !IsNegativeNumber(word); });
		if (numbers != words.end()) {
			words.insert(numbers, kSeparator);
		}
	}
	arguments.own = std::move(words);
	return arguments;
}

int RunProgram(int argc, const char* const* argv, const Surroundings& surroundings) {
	CLI::App app("Keeps downloadable databases up to date.", kProgram);
	Options options;
	const Command* chosen = nullptr;
	app.set_version_flag("--version", std::string(kProgram) + " " + TARNDBUDCTL_VERSION);
	app.add_flag("--verbose", options.verbose, "Write the lines for the system log to the error stream as well");
	app.require_subcommand(1);
	app.fallthrough();
	app.footer(DescribeCodes([](ExitCode) { return true; }) + "\n" + kSignalsHelp);
	for (const Command& command : surroundings.commands) {
		Declare(app, command, options, chosen);
	}
	try {
		Parse(app, argc, argv, surroundings.commands, options);
		if (chosen->tail == Tail::kCommand && options.command.empty()) {
			throw CLI::RequiredError("-- COMMAND...");
		}
	} catch (const CLI::Success& success) {
		app.exit(success, surroundings.out, surroundings.err);
		return kDone;
	} catch (const CLI::ParseError& error) {
		return RefuseUsage(app, error, {argv + std::min(argc, 1), argv + argc}, surroundings);
	}
	return RunGuarded(*chosen, options, surroundings);
}

} // namespace tarn::ctl
