#include "publisher/commands/mirror_command.h"

#include "base/text.h"
#include "publisher/commands/command_line.h"
#include "publisher/commands/progress_line.h"
#include "publisher/common/json_text.h"
#include "publisher/common/publish_error.h"
#include "publisher/mirror/mirror.h"
#include "publisher/mirror/mirror_snapshot.h"

#include <CLI/CLI.hpp>
#include <json/json.h>

#include <exception>

namespace tarn::publisher {

namespace {

constexpr char kMirrorHelp[] =
    "Carries packages first, documents when all that they name is there, and deletes last, so that it may be killed\n"
    "and run again at any moment. rclone's own settings (rclone.conf, RCLONE_... in the environment) apply.\n"
    "\n"
    "Exit status: 0 the store has what the repository has, 1 failed, 2 wrong usage, 3 the repository is broken for\n"
    "devices, so nothing was offered. In all cases each document at the store names packages that are there;\n"
    "--compare looks at their content.";

struct Command {
	MirrorOptions options;
	bool json = false;
};

void Declare(CLI::App& app, Command& command) {
	MirrorOptions& options = command.options;
	app.set_version_flag("--version", std::string("tarndbudpub-mirror ") + TARNDBUDPUB_VERSION);
	app.footer(kMirrorHelp);
	app.add_option("STORE", options.store, "Where to, as rclone names it: NAME:BUCKET or NAME:BUCKET/PATH")->required();
	app.add_option("--repo", options.repository, "Directory that tarndbudpub writes")->required();
	app.add_flag("--no-delete", options.keeps_all, "Delete nothing at the store");
	app.add_flag("--force", options.force, "Go on although the store offers what the repository lacks");
	app.add_flag("--compare", options.compares, "Read every package at the store, and carry those again that differ");
	app.add_flag("--dry-run", options.dry_run, "Change nothing; say what would be done");
	app.add_flag("--json", command.json, "Print JSON");
}

Json::Value NamesJson(const std::vector<std::string>& names) {
	Json::Value value(Json::arrayValue);
	for (const std::string& name : names) {
		value.append(Printable(name));
	}
	return value;
}

void PrintJson(const MirrorOptions& options, const MirrorResult& result, std::ostream& out) {
	Json::Value value(Json::objectValue);
	value["repository"] = options.repository;
	value["store"] = options.store;
	value["dry_run"] = options.dry_run;
	value["rounds"] = result.rounds;
	value["bytes"] = Json::UInt64{result.bytes};
	value["carried"] = NamesJson(result.carried);
	value["unchanged_packages"] = Json::UInt64{result.unchanged_packages};
	value["written"] = NamesJson(result.written);
	value["unchanged_documents"] = Json::UInt64{result.unchanged_documents};
	value["deleted"] = NamesJson(result.deleted);
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

int Run(const Command& command, const Streams& streams) {
	MirrorResult result;
	{
		ProgressLine line(streams.err, streams.terminal);
		PublishObserver observer = ObserverOf(line, streams);
		observer.waiting = [&] {
			streams.err << "Waiting for another tarndbudpub-mirror of this repository.\n" << std::flush;
		};
		result = Mirror(command.options, observer);
	}
	if (command.json) {
		PrintJson(command.options, result, streams.out);
	} else {
		PrintText(command.options, result, streams.out);
	}
	if (!streams.out.flush()) {
		throw PublishError("The result could not be printed.");
	}
	return kDone;
}

int CodeOf(const std::exception& error) {
	if (dynamic_cast<const UsageError*>(&error) != nullptr) {
		return kUsage;
	}
	return dynamic_cast<const BrokenRepository*>(&error) != nullptr ? kBroken : kFailed;
}

} // namespace

int RunMirrorCommand(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err, bool terminal) {
	Command command;
	CLI::App app("Carries a repository to object storage or another store that rclone knows", "tarndbudpub-mirror");
	Declare(app, command);
	try {
		app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
	} catch (const CLI::ParseError& error) {
		return app.exit(error, out, err) == 0 ? kDone : kUsage;
	}
	try {
		return Run(command, {out, err, terminal});
	} catch (const std::exception& error) {
		err << "tarndbudpub-mirror: " << error.what() << "\n";
		return CodeOf(error);
	}
}

} // namespace tarn::publisher
