#include "command_line.h"

#include "exit_codes.h"
#include "inspect.h"
#include "progress.h"
#include "publish.h"
#include "publish_error.h"
#include "signing_key.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <exception>
#include <iomanip>
#include <sstream>

namespace tarn::publisher {

namespace {

struct Streams {
	std::ostream& out;
	std::ostream& err;
	bool terminal;
};

struct Options {
	std::string prefix;
	PublishOptions publish;
	std::string package;
	std::vector<std::string> public_keys;
	bool json = false;
};

void RunKeygen(const Options& options, const Streams& streams) {
	const std::string fingerprint = GenerateKeyFiles(options.prefix);
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
	    << ". Devices come by diffs from version " << diff.oldest_base << " on.\n";
}

void RunPublish(const Options& options, const Streams& streams) {
	PublishResult result;
	{
		ProgressLine line(streams.err, streams.terminal);
		PublishObserver observer;
		observer.warn = [&](const std::string& sentence) {
			line.Clear();
			streams.err << "warning: " << sentence << "\n";
		};
		observer.waiting = [&] { streams.err << "Waiting for another publisher of this repository.\n" << std::flush; };
		observer.progress = [&](std::uint64_t files, std::uint64_t bytes, const Tree& tree) {
			line.Show(files, bytes, tree.files.size(), tree.total_size);
		};
		observer.step = [&](const std::string& what, std::uint64_t done, std::uint64_t all) {
			line.ShowStep(what, done, all);
		};
		result = Publish(options.publish, observer);
	}
	streams.out << "Published " << options.publish.id << " version " << result.data_version << ": " << result.files
	            << " files, " << HumanSize(result.tree_size) << " in a package of " << HumanSize(result.package_size)
	            << ", " << result.download_link << "\n";
	if (result.diff) {
		PrintDiff(*result.diff, result, streams.out);
	}
}

void RunVerify(const Options& options, const Streams& streams) {
	streams.out << VerifyPackage(options.package, options.public_keys) << "\n";
}

void RunInspect(const Options& options, const Streams& streams) {
	InspectPackage(options.package, options.json, streams.out);
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
	command->add_option("--url", publish.url, "Where devices reach the repository, http:// or https://")->required();
	command->add_option("--data-version", publish.data_version, "Version to publish; the last plus one by default");
	command->add_option("--format-version", publish.format_version, "Format of the data")->capture_default_str();
	command->add_option("--db-version", publish.db_version, "Version of the server's document")->capture_default_str();
	command->add_option("--keep-diffs", publish.keep_diffs, "Diff packages to keep, the oldest go; 0 makes none")
	    ->capture_default_str();
	command->add_option("--old-key", publish.old_keys, "Public key that signed earlier packages; may be repeated");
	command->add_option("--level", publish.level, "Compression level, 1 (fast) to 19 (small)")->capture_default_str();
}

void AddReaders(CLI::App& app, Options& options) {
	CLI::App* verify = app.add_subcommand("verify", "Check a package's signature and content");
	verify->add_option("PACKAGE", options.package, "Package file")->required();
	verify->add_option("--key", options.public_keys, "Public key; several are tried in turn")->required();
	CLI::App* inspect = app.add_subcommand("inspect", "Show what a package says it holds; checks no signature");
	inspect->add_option("PACKAGE", options.package, "Package file")->required();
	inspect->add_flag("--json", options.json, "Print JSON");
}

void Run(const CLI::App& app, const Options& options, const Streams& streams) {
	if (app.got_subcommand("keygen")) {
		RunKeygen(options, streams);
	} else if (app.got_subcommand("publish")) {
		RunPublish(options, streams);
	} else if (app.got_subcommand("verify")) {
		RunVerify(options, streams);
	} else {
		RunInspect(options, streams);
	}
}

int RunReporting(const CLI::App& app, const Options& options, const Streams& streams) {
	try {
		Run(app, options, streams);
		if (!streams.out.flush()) {
			throw PublishError("The result could not be printed.");
		}
		return kDone;
	} catch (const UsageError& error) {
		streams.err << "tarndbudpub: " << error.what() << "\n";
		return kUsage;
	} catch (const std::exception& error) {
		streams.err << "tarndbudpub: " << error.what() << "\n";
		return kFailed;
	}
}

} // namespace

int RunCommandLine(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err, bool terminal) {
	Options options;
	CLI::App app("Publishes databases as signed packages in a directory for any web server", "tarndbudpub");
	app.set_version_flag("--version", std::string("tarndbudpub ") + TARNDBUDPUB_VERSION);
	app.require_subcommand(1);
	AddKeygen(app, options);
	AddPublish(app, options);
	AddReaders(app, options);
	try {
		std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
		app.parse(reversed);
	} catch (const CLI::ParseError& error) {
		return app.exit(error, out, err) == 0 ? kDone : kUsage;
	}
	return RunReporting(app, options, {out, err, terminal});
}

} // namespace tarn::publisher
