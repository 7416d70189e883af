#include "publisher/commands/command_line.h"

#include "base/nearest.h"
#include "base/usage.h"
#include "publisher/commands/changes_command.h"
#include "publisher/commands/common_options.h"
#include "publisher/commands/export_command.h"
#include "publisher/commands/inspect.h"
#include "publisher/commands/key_commands.h"
#include "publisher/commands/progress_line.h"
#include "publisher/commands/repository_commands.h"
#include "publisher/commands/result_text.h"
#include "publisher/commands/site_command.h"
#include "publisher/common/publish_error.h"
#include "publisher/releases/publish.h"
#include "publisher/releases/restore.h"
#include "publisher/releases/withdraw.h"
#include "publisher/repository/publish_options.h"

#include <CLI/CLI.hpp>

#include <exception>
#include <optional>

namespace tarn::publisher {

namespace {

struct Options {
	KeyCommandOptions keys;
	PublishOptions publish;
	RestoreOptions restore;
	ChangesCommand changes;
	RepositoryCommandOptions repository;
	ExportOptions export_kit;
	site::SiteCommand site;
	std::vector<std::string> old_keys;
	std::string package;
	std::string directory;
	std::vector<std::string> public_keys;
	std::optional<std::int64_t> withdraw_to;
	bool json = false;
};

void RunPublish(const Options& options, const Streams& streams) {
	PublishResult result;
	{
		ProgressLine line(streams.err, streams.terminal);
		result = Publish(options.publish, ObserverOf(line, streams));
	}
	PrintPublished(options.publish, result, options.json, streams.out);
}

void RunWithdraw(const Options& options, const Streams& streams) {
	WithdrawResult result;
	{
		ProgressLine line(streams.err, streams.terminal);
		result = Withdraw(options.publish, options.withdraw_to, ObserverOf(line, streams));
	}
	PrintWithdrawn(options.publish, result, options.json, streams.out);
}

void PrintRestored(const RestoredDatabase& database, std::ostream& out) {
	if (database.was_named) {
		out << "Left as it is: " << database.id << ", of which the document names version " << database.data_version
		    << ".\n";
		return;
	}
	out << "Restored " << database.id << " version " << database.data_version << ", " << database.download_link
	    << ", with " << database.diffs << (database.diffs == 1 ? " diff package" : " diff packages");
	if (database.diffs > 0) {
		out << "; devices from version " << database.oldest_base << " on take them";
	}
	out << ".\n";
}

void RunRestore(const Options& options, const Streams& streams) {
	RestoreOptions restore = options.restore;
	restore.keys.insert(restore.keys.end(), options.old_keys.begin(), options.old_keys.end());
	RestoreResult result;
	{
		ProgressLine line(streams.err, streams.terminal);
		result = Restore(restore, ObserverOf(line, streams));
	}
	for (const RestoredDatabase& database : result.databases) {
		PrintRestored(database, streams.out);
	}
	streams.out << (result.is_written ? "Wrote " : "Nothing to write: ") << result.document << "\n";
	if (!result.failures.empty()) {
		std::string sentences;
		for (const std::string& failure : result.failures) {
			sentences += (sentences.empty() ? "" : " ") + failure;
		}
		throw PublishError(sentences);
	}
}

void RunChanges(const ChangesCommand& command, const Streams& streams) {
	ProgressLine line(streams.err, streams.terminal);
	const Changes changes = FindChanges(command.options, ObserverOf(line, streams));
	line.Clear();
	PrintChanges(command, changes, streams.out);
}

void RunExport(const Options& options, const Streams& streams) {
	ProgressLine line(streams.err, streams.terminal);
	const ExportResult result = Export(options.export_kit, ObserverOf(line, streams));
	line.Clear();
	PrintExported(options.export_kit, result, options.json, streams.out);
}

constexpr char kFooter[] = "Exit status: 0 done, 1 failed, 2 wrong usage.";

/** Takes a number, or "auto", which is the default. */
CLI::callback_t TakeKeptDiffs(KeptDiffs& kept) {
	return [&kept](const CLI::results_t& words) {
		const std::string& text = words.front();
		kept = ParseVersion(text); // A number as a version is: digits alone.
		if (!kept && text != "auto") {
			throw UsageError("--keep-diffs \"" + text + R"(" must be a number or "auto".)");
		}
		return true;
	};
}

/** What all commands take that publish a version. */
void AddPublishing(CLI::App& command, Options& options) {
	PublishOptions& publish = options.publish;
	AddDocument(command, publish.db_version);
	command
	    .add_option("--keep-diffs", TakeKeptDiffs(publish.keep_diffs), "Number of diff packages to keep; 0 makes none")
	    ->default_str("auto");
	command.add_option("--data-version", publish.data_version, "Version to publish; by default the last plus one");
	AddOldKeys(command, publish.old_keys);
	command.add_option("--level", publish.level, "Compression level, 1 (fast) to 19 (small)")->capture_default_str();
	command.add_option("--notes", publish.notes, "What the packages say about the version, for inspect");
	AddJson(command, options.json);
}

void AddPublish(CLI::App& app, Options& options) {
	PublishOptions& publish = options.publish;
	CLI::App* command = app.add_subcommand("publish", "Publish a directory tree as the next version of a database");
	command->add_option("TREE", publish.tree, "Directory to publish")->required();
	AddRepository(*command, publish.repository);
	command->add_option("--id", publish.id, "The database's id")->required();
	command->add_option("--key", publish.key_file, "Private key that signs the package")->required();
	command->add_option("--url", publish.url, "Where devices reach the repository: http:// or https://")->required();
	command->add_option("--format-version", publish.format_version, "Format of the data")->capture_default_str();
	command->add_flag("--if-changed", publish.if_changed, "Publish nothing if the newest version holds the tree");
	command->add_flag(
	    "--even-withdrawn", publish.even_withdrawn, "Publish the tree though a version with its content was withdrawn");
	command->add_flag("--continue", publish.must_continue, "Fail if the repository does not know the id yet");
	command->add_option("--memory", publish.memory_mib, "Memory for making patches, in MiB")->capture_default_str();
	AddPublishing(*command, options);
}

void AddWithdraw(CLI::App& app, Options& options) {
	PublishOptions& publish = options.publish;
	CLI::App* command = app.add_subcommand("withdraw", "Publish the content of an earlier version as the next version");
	AddId(*command, publish.id);
	AddRepository(*command, publish.repository);
	command->add_option("--key", publish.key_file, "Private key that signs the packages")->required();
	command->add_option("--to", options.withdraw_to, "Version whose content comes back; by default the one before");
	AddNotedUrl(*command, publish.url);
	AddPublishing(*command, options);
}

void AddRestore(CLI::App& app, Options& options) {
	RestoreOptions& restore = options.restore;
	CLI::App* command = app.add_subcommand("restore", "Rebuild a lost document from the packages in a repository");
	AddRepository(*command, restore.repository);
	AddPublicKeys(*command, restore.keys);
	AddOldKeys(*command, options.old_keys);
	AddNotedUrl(*command, restore.url);
	command->add_option("--id", restore.ids, "Database to restore; by default all; may be repeated");
	AddDocument(*command, restore.db_version);
	command->add_option("--format-version", restore.format_version, "Use packages of this format only");
	command->add_option("--data-version", restore.data_version, "Highest version to name; by default the newest");
	command->add_option("--keep-diffs", TakeKeptDiffs(restore.keep_diffs), "Largest number of diff packages to name")
	    ->default_str("auto");
	command->add_flag("--force", restore.force, "Replace entries that the document already has");
}

void AddReaders(CLI::App& app, Options& options) {
	CLI::App* verify = app.add_subcommand("verify", "Check a package's signature and content");
	CLI::App* extract = app.add_subcommand("extract", "Check a package and unpack its files");
	CLI::App* inspect = app.add_subcommand("inspect", "Show what a package says about itself; checks no signature");
	for (CLI::App* command : {verify, extract, inspect}) {
		command->add_option("PACKAGE", options.package, "Package file")->required();
	}
	for (CLI::App* command : {verify, extract}) {
		command->add_option("--key", options.public_keys, "Public key that may have signed it; may be repeated")
		    ->required();
	}
	extract->add_option("DIRECTORY", options.directory, "Directory for the files; made if missing")->required();
	AddJson(*inspect, options.json);
}

int Run(const CLI::App& app, const Options& options, const Streams& streams) {
	if (const std::optional<int> code = RunRepositoryCommand(app, options.repository, streams)) {
		return *code;
	}
	if (RunKeyCommand(app, options.keys, streams.out)) {
		return kDone;
	}
	if (app.got_subcommand("publish")) {
		RunPublish(options, streams);
	} else if (app.got_subcommand("withdraw")) {
		RunWithdraw(options, streams);
	} else if (app.got_subcommand("restore")) {
		RunRestore(options, streams);
	} else if (app.got_subcommand("changes")) {
		RunChanges(options.changes, streams);
	} else if (app.got_subcommand("export")) {
		RunExport(options, streams);
	} else if (app.got_subcommand("site")) {
		site::RunSite(options.site, streams);
	} else if (app.got_subcommand("verify")) {
		streams.out << VerifyPackage(options.package, options.public_keys) << "\n";
	} else if (app.got_subcommand("extract")) {
		streams.out << UnpackPackage(options.package, options.public_keys, options.directory) << "\n";
	} else {
		InspectPackage(options.package, options.json, streams.out);
	}
	return kDone;
}

int RunReporting(const CLI::App& app, const Options& options, const Streams& streams) {
	try {
		const int code = Run(app, options, streams);
		if (!streams.out.flush()) {
			throw PublishError("The result could not be printed.");
		}
		return code;
	} catch (const std::exception& error) {
		streams.err << "tarndbudpub: " << error.what() << "\n";
		return dynamic_cast<const UsageError*>(&error) != nullptr ? kUsage : kFailed;
	}
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

} // namespace

int RunCommandLine(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err, bool terminal) {
	Options options;
	CLI::App app("Publishes databases as signed packages in a directory for any web server", "tarndbudpub");
	app.set_version_flag("--version", std::string("tarndbudpub ") + TARNDBUDPUB_VERSION);
	app.require_subcommand(1);
	app.footer(kFooter); // which subcommands inherit
	AddKeyCommands(app, options.keys);
	AddPublish(app, options);
	AddWithdraw(app, options);
	AddRestore(app, options);
	AddChangesCommand(app, options.changes);
	AddExport(app, options.export_kit, options.json);
	site::AddSiteCommand(app, options.site);
	AddReaders(app, options);
	AddRepositoryCommands(app, options.repository);
	try {
		app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
	} catch (const CLI::ParseError& error) {
		return RefuseUsage(app, error, arguments, out, err);
	} catch (const UsageError& error) {
		err << "tarndbudpub: " << error.what() << "\n";
		return kUsage;
	}
	return RunReporting(app, options, {out, err, terminal});
}

} // namespace tarn::publisher
