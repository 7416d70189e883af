#include "base/text.h"
#include "publisher/commands/command_line.h"
#include "publisher/commands/common_options.h"
#include "publisher/common/json_text.h"
#include "publisher/mirror/mirror.h"

namespace tarn::publisher {

namespace {

constexpr char kMirrorHelp[] =
    "Carries packages first, documents when all that they name is there, and deletes last, so that it may be killed\n"
    "and run again at any moment. rclone's own settings (rclone.conf, RCLONE_... in the environment) apply.\n"
    "\n"
    "Exit status: 0 the store has what the repository has, 1 failed, 2 wrong usage, 3 the repository is broken for\n"
    "devices, so nothing was offered. In all cases each document at the store names packages that are there;\n"
    "--compare looks at their content.";

struct Options : MirrorOptions {
	bool json = false;
};

void Declare(CLI::App& app, Options& options) {
	app.set_version_flag("--version", std::string("tarndbudpub-mirror ") + TARNDBUDPUB_VERSION);
	app.footer(kMirrorHelp);
	app.add_option("STORE", options.store, "Where to, as rclone names it: NAME:BUCKET or NAME:BUCKET/PATH")->required();
	app.add_option("--repo", options.repository, "Directory that tarndbudpub writes")->required();
	app.add_flag("--no-delete", options.keeps_all, "Delete nothing at the store");
	app.add_flag("--force", options.force, "Go on although the store offers what the repository lacks");
	app.add_flag("--compare", options.compares, "Read every package at the store, and carry those again that differ");
	app.add_flag("--dry-run", options.dry_run, "Change nothing; say what would be done");
	AddJson(app, options.json);
}

void PrintJson(const MirrorOptions& options, const MirrorResult& result, std::ostream& out) {
	const Json::Value value =
	    JsonObject({{"repository", options.repository}, {"store", options.store}, {"dry_run", options.dry_run},
	        {"rounds", result.rounds}, {"bytes", result.bytes}, {"carried", JsonArray(result.carried, Printable)},
	        {"unchanged_packages", result.unchanged_packages}, {"written", JsonArray(result.written, Printable)},
	        {"unchanged_documents", result.unchanged_documents}, {"deleted", JsonArray(result.deleted, Printable)}});
	out << JsonText(value, "\t") << "\n";
}

void PrintNames(const char* verb, const std::vector<std::string>& names, std::ostream& out) {
	for (const std::string& name : names) {
		out << verb << Printable(name) << "\n";
	}
}

void PrintText(const MirrorOptions& options, const MirrorResult& result, std::ostream& out) {
	const bool is_dry = options.dry_run;
	PrintNames(is_dry ? "Would carry " : "Carried ", result.carried, out);
	PrintNames(is_dry ? "Would write " : "Wrote ", result.written, out);
	PrintNames(is_dry ? "Would delete " : "Deleted ", result.deleted, out);
	out << (is_dry ? "Packages to carry: " : "Packages carried: ") << result.carried.size() << " ("
	    << HumanSize(result.bytes) << "), documents " << (is_dry ? "to write: " : "written: ") << result.written.size()
	    << ", files " << (is_dry ? "to delete: " : "deleted: ") << result.deleted.size() << ". Already there: packages "
	    << result.unchanged_packages << ", documents " << result.unchanged_documents << ".\n";
}

int Run(const Options& options, const Streams& streams) {
	MirrorResult result;
	WithProgress(streams, [&](PublishObserver observer) {
		observer.waiting = [&] {
			streams.err << "Waiting for another tarndbudpub-mirror of this repository.\n" << std::flush;
		};
		result = Mirror(options, observer);
	});
	(options.json ? PrintJson : PrintText)(options, result, streams.out);
	return kDone;
}

} // namespace

int RunMirrorCommand(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err, bool terminal) {
	Options options;
	CLI::App app("Carries a repository to object storage or another store that rclone knows", "tarndbudpub-mirror");
	Declare(app, options);
	try {
		app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
	} catch (const CLI::ParseError& error) {
		return app.exit(error, out, err) == 0 ? kDone : kUsage;
	}
	const auto run = [&](const Streams& streams) { return Run(options, streams); };
	return RunReporting("tarndbudpub-mirror", run, {out, err, terminal});
}

} // namespace tarn::publisher
