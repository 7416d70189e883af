#include "publisher/command_line.h"

#include "archive/signing_key.h"
#include "base/nearest.h"
#include "base/text.h"
#include "publisher/inspect.h"
#include "publisher/publish.h"
#include "publisher/publish_error.h"
#include "publisher/restore.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <exception>
#include <iomanip>
#include <sstream>

namespace tarn::publisher {

namespace {

/** One line on a terminal, rewritten a few times a second, and removed with the object. */
class ProgressLine {
public:
	ProgressLine(std::ostream& out, bool enabled) : out_(out), enabled_(enabled) {}
	ProgressLine(const ProgressLine&) = delete;
	ProgressLine& operator=(const ProgressLine&) = delete;
	~ProgressLine() {
		try {
			Clear();
		} catch (...) { // failing to write to a terminal is no failure of the command
		}
	}

	void Show(std::uint64_t files, std::uint64_t bytes, const Tree& tree) {
		constexpr std::chrono::milliseconds kInterval{200};
		const Clock::time_point now = Clock::now();
		if (!enabled_ || (shown_ && now - last_ < kInterval)) {
			return;
		}
		const double seconds = std::chrono::duration<double>(now - started_).count();
		const double rate = seconds > 0 ? static_cast<double>(bytes) / seconds : 0;
		Print("packing " + std::to_string(files) + " of " + std::to_string(tree.files.size()) + " files, " +
		      HumanSize(bytes) + " of " + HumanSize(tree.total_size) + ", " +
		      HumanSize(static_cast<std::uint64_t>(rate)) + "/s");
	}
	/** Shows how many parts of a step are done; without a number when the step has one part. */
	void ShowStep(const std::string& what, std::uint64_t done, std::uint64_t all) {
		if (enabled_) {
			Print(all == 1 ? what : what + " " + std::to_string(done) + " of " + std::to_string(all));
		}
	}
	/** Makes room for another line. */
	void Clear() {
		if (shown_) {
			out_ << kEmptyLine << std::flush;
			shown_ = false;
		}
	}

private:
	using Clock = std::chrono::steady_clock;
	static constexpr const char* kEmptyLine = "\r\x1b[K";

	void Print(const std::string& text) {
		out_ << kEmptyLine << text << std::flush;
		shown_ = true;
		last_ = Clock::now();
	}

	std::ostream& out_;
	bool enabled_;
	bool shown_ = false;
	Clock::time_point started_ = Clock::now();
	Clock::time_point last_;
};

struct Streams {
	std::ostream& out;
	std::ostream& err;
	bool terminal;
};

struct Options {
	std::string prefix;
	PublishOptions publish;
	RestoreOptions restore;
	std::vector<std::string> old_keys;
	std::string package;
	std::string directory;
	std::vector<std::string> public_keys;
	bool json = false;
};

void RunKeygen(const Options& options, const Streams& streams) {
	const std::string fingerprint = archive::GenerateKeyFiles(options.prefix);
	streams.out << "Wrote " << options.prefix << ".key (keep it secret) and " << options.prefix << ".pub ("
	            << fingerprint << ").\n";
}

void PrintDiff(const DiffResult& diff, const PublishResult& result, std::ostream& out) {
	constexpr double kPercent = 100;
	std::ostringstream share;
	share << std::fixed << std::setprecision(1)
	      << kPercent * static_cast<double>(diff.package_size) / static_cast<double>(result.package_size);
	out << "Diff from version " << result.data_version - 1 << ": " << HumanSize(diff.package_size) << ", "
	    << share.str() << " % of the full package; files created " << diff.created << ", replaced " << diff.replaced
	    << ", patched " << diff.patched << ", scripted " << diff.scripted << ", deleted " << diff.deleted
	    << ". Devices from version " << diff.oldest_base << " on take diff packages.\n";
}

PublishObserver ObserverOf(ProgressLine& line, const Streams& streams) {
	PublishObserver observer;
	observer.warn = [&](const std::string& sentence) {
		line.Clear();
		streams.err << "warning: " << sentence << "\n";
	};
	observer.waiting = [&] { streams.err << "Waiting for another publisher of this repository.\n" << std::flush; };
	observer.progress = [&](std::uint64_t files, std::uint64_t bytes, const Tree& tree) {
		line.Show(files, bytes, tree);
	};
	observer.step = [&](const std::string& what, std::uint64_t done, std::uint64_t all) {
		line.ShowStep(what, done, all);
	};
	return observer;
}

void RunPublish(const Options& options, const Streams& streams) {
	PublishResult result;
	{
		ProgressLine line(streams.err, streams.terminal);
		result = Publish(options.publish, ObserverOf(line, streams));
	}
	streams.out << "Published " << options.publish.id << " version " << result.data_version << ": " << result.files
	            << " files, " << HumanSize(result.tree_size) << " in a package of " << HumanSize(result.package_size)
	            << ", " << result.download_link << "\n";
	if (result.is_first) {
		streams.out << "This is the first publication of " << options.publish.id << " in " << options.publish.repository
		            << ": devices that have a version of it take higher ones only.\n";
	}
	if (result.diff) {
		PrintDiff(*result.diff, result, streams.out);
	}
}

void PrintRestored(const RestoredDatabase& database, std::ostream& out) {
	if (database.was_named) {
		out << "Left as it is: " << database.id << ", of which the document names version " << database.data_version
		    << ".\n";
		return;
	}
	out << "Restored " << database.id << " version " << database.data_version << ", " << database.download_link
	    << ", with " << database.diffs << " diff packages";
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

void AddKeygen(CLI::App& app, Options& options) {
	CLI::App* command = app.add_subcommand("keygen", "Make a key pair: PREFIX.key signs, PREFIX.pub goes to devices");
	command->add_option("PREFIX", options.prefix, "Path of the two files without their endings")->required();
}

void AddPublish(CLI::App& app, Options& options) {
	PublishOptions& publish = options.publish;
	CLI::App* command = app.add_subcommand("publish", "Publish a directory tree as the next version of a database");
	command->add_option("TREE", publish.tree, "Directory to publish")->required();
	command->add_option("--repo", publish.repository, "Directory that the web server serves")->required();
	command->add_option("--id", publish.id, "The database's id")->required();
	command->add_option("--key", publish.key_file, "Private key that signs the package")->required();
	command->add_option("--url", publish.url, "Where devices reach the repository: http:// or https://")->required();
	command->add_option("--data-version", publish.data_version, "Version to publish; by default the last plus one");
	command->add_option("--format-version", publish.format_version, "Format of the data")->capture_default_str();
	command->add_option("--db-version", publish.db_version, "Version of the server's document")->capture_default_str();
	command
	    ->add_option("--keep-diffs", TakeKeptDiffs(publish.keep_diffs), "Number of diff packages to keep; 0 makes none")
	    ->default_str("auto");
	command->add_option("--old-key", publish.old_keys, "Public key that signed earlier packages; may be repeated");
	command->add_flag("--continue", publish.must_continue, "Fail if the repository does not know the id yet");
	command->add_option("--level", publish.level, "Compression level, 1 (fast) to 19 (small)")->capture_default_str();
	command->add_option("--memory", publish.memory_mib, "Memory for making patches, in MiB")->capture_default_str();
}

void AddRestore(CLI::App& app, Options& options) {
	RestoreOptions& restore = options.restore;
	CLI::App* command = app.add_subcommand("restore", "Rebuild a lost document from the packages in a repository");
	command->add_option("--repo", restore.repository, "Directory that the web server serves")->required();
	command->add_option("--key", restore.keys, "Public key that signed the packages; may be repeated")->required();
	command->add_option("--old-key", options.old_keys, "Public key that signed earlier packages; may be repeated");
	command->add_option("--url", restore.url, "Where devices reach the repository; by default as last published");
	command->add_option("--id", restore.ids, "Database to restore; by default all; may be repeated");
	command->add_option("--db-version", restore.db_version, "Version of the server's document")->capture_default_str();
	command->add_option("--format-version", restore.format_version, "Use packages of this format only");
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
	inspect->add_flag("--json", options.json, "Print JSON");
}

void Run(const CLI::App& app, const Options& options, const Streams& streams) {
	if (app.got_subcommand("keygen")) {
		RunKeygen(options, streams);
	} else if (app.got_subcommand("publish")) {
		RunPublish(options, streams);
	} else if (app.got_subcommand("restore")) {
		RunRestore(options, streams);
	} else if (app.got_subcommand("verify")) {
		streams.out << VerifyPackage(options.package, options.public_keys) << "\n";
	} else if (app.got_subcommand("extract")) {
		streams.out << UnpackPackage(options.package, options.public_keys, options.directory) << "\n";
	} else {
		InspectPackage(options.package, options.json, streams.out);
	}
}

int RunReporting(const CLI::App& app, const Options& options, const Streams& streams) {
	try {
		Run(app, options, streams);
		if (!streams.out.flush()) {
			throw PublishError("The result could not be printed.");
		}
		return kDone;
	} catch (const std::exception& error) {
		streams.err << "tarndbudpub: " << error.what() << "\n";
		return dynamic_cast<const UsageError*>(&error) != nullptr ? kUsage : kFailed;
	}
}

constexpr char kWhereHelp[] = "\nRun with --help for more information.\n";

/** What the parser says, unless the command is at fault, which it does not name. */
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
	if (unknown.empty()) {
		app.exit(error, out, err);
	} else {
		err << "tarndbudpub: " << unknown << (EndsWith(unknown, "?") ? "" : ".") << kWhereHelp;
	}
	return kUsage;
}

} // namespace

int RunCommandLine(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err, bool terminal) {
	Options options;
	CLI::App app("Publishes databases as signed packages in a directory for any web server", "tarndbudpub");
	app.set_version_flag("--version", std::string("tarndbudpub ") + TARNDBUDPUB_VERSION);
	app.require_subcommand(1);
	app.footer(kFooter); // which subcommands inherit
	AddKeygen(app, options);
	AddPublish(app, options);
	AddRestore(app, options);
	AddReaders(app, options);
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
