#include "publisher/commands/command_line.h"

#include "base/nearest.h"
#include "base/usage.h"
#include "publisher/commands/commands.h"
#include "publisher/common/publish_error.h"
#include "publisher/mirror/mirror_snapshot.h"

#include <CLI/CLI.hpp>

#include <exception>

namespace tarn::publisher {

namespace {

int CodeOf(const std::exception& error) {
	if (dynamic_cast<const UsageError*>(&error) != nullptr) {
		return kUsage;
	}
	return dynamic_cast<const BrokenRepository*>(&error) != nullptr ? kBroken : kFailed;
}

/** A wrong command line gets a sentence and the usage of the command that it names. */
int RefuseUsage(const CLI::App& app, const CLI::ParseError& error, const std::vector<std::string>& arguments,
    std::ostream& out, std::ostream& err) {
	if (error.get_exit_code() == 0) {
		return app.exit(error, out, err);
	}
	std::vector<std::string> names;
	for (const CLI::App* command : app.get_subcommands(nullptr)) {
		names.push_back(command->get_name());
	}
	const std::string unknown = DescribeUnknownCommand(arguments, names);
	err << DescribeWrongUsage("tarndbudpub", unknown.empty() ? error.what() : unknown, app.help());
	return kUsage;
}

/** An option that may be repeated would else take the arguments behind its value as well. */
void TakeOneValueEach(CLI::App& app) {
	for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; })) {
		for (CLI::Option* option : command->get_options([](CLI::Option* any) { return !any->get_positional(); })) {
			option->allow_extra_args(false);
		}
	}
}

} // namespace

int RunReporting(const char* program, const Command& command, const Streams& streams) {
	try {
		const int code = command(streams);
		if (!streams.out.flush()) {
			throw PublishError("The result could not be printed.");
		}
		return code;
	} catch (const std::exception& error) {
		streams.err << program << ": " << error.what() << "\n";
		return CodeOf(error);
	}
}

int RunCommandLine(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err, bool terminal) {
	Command given;
	CLI::App app("Publishes databases as signed packages in a directory for any web server", "tarndbudpub");
	app.set_version_flag("--version", std::string("tarndbudpub ") + TARNDBUDPUB_VERSION);
	app.require_subcommand(1);
	app.footer("Exit status: 0 done, 1 failed, 2 wrong usage."); // which subcommands inherit
	AddKeyCommands(app, given);
	AddPublishCommands(app, given);
	AddChangesCommand(app, given);
	AddExportCommand(app, given);
	AddSiteCommand(app, given);
	AddPackageCommands(app, given);
	AddRepositoryCommands(app, given);
	TakeOneValueEach(app);
	try {
		app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
	} catch (const CLI::ParseError& error) {
		return RefuseUsage(app, error, arguments, out, err);
	} catch (const UsageError& error) {
		err << "tarndbudpub: " << error.what() << "\n";
		return kUsage;
	}
	return RunReporting("tarndbudpub", given, {out, err, terminal});
}

} // namespace tarn::publisher
