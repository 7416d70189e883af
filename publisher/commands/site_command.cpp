#include "publisher/commands/site_command.h"

#include "base/text.h"
#include "publisher/changes/change_words.h"
#include "publisher/commands/common_options.h"
#include "publisher/common/json_text.h"

#include <CLI/CLI.hpp>

namespace tarn::publisher::site {

namespace {

Json::Value ToJson(const SiteOptions& options, const SiteResult& result) {
	Json::Value value(Json::objectValue);
	value["out"] = options.out;
	value["databases"] = Json::UInt64{result.databases};
	value["versions"] = Json::UInt64{result.versions};
	value["files"] = Json::UInt64{result.files};
	value["bytes"] = Json::UInt64{result.bytes};
	value["changes_compared"] = Json::UInt64{result.compared};
	value["changes_kept"] = Json::UInt64{result.kept};
	value["feed"] = result.has_feed;
	return value;
}

void Print(const SiteOptions& options, const SiteResult& result, std::ostream& out) {
	out << "Wrote " << options.out << ": " << Counted(result.databases, "database") << " with "
	    << Counted(result.versions, "version") << ", " << Counted(result.files, "file") << " ("
	    << HumanSize(result.bytes) << "); changes of " << Counted(result.compared, "release") << " compared, of "
	    << result.kept << " found by an earlier run.\n";
}

} // namespace

void AddSiteCommand(CLI::App& app, SiteCommand& command) {
	SiteOptions& options = command.options;
	CLI::App* site = app.add_subcommand("site", "Write pages for people: versions, sizes, changes, channels, a feed");
	AddRepository(*site, options.repository);
	site->add_option("--out", options.out, "Directory for the pages; replaced as a whole")->required();
	site->add_option("--key", options.keys, "Public key that signs, for its fingerprint and for changes; repeatable");
	AddOldKeys(*site, options.old_keys);
	site->add_option("--url", options.url, "Where the pages are served; by default by the last publication");
	site->add_option("--title", options.title, "Title of the first page")->capture_default_str();
	site->add_option(
	        "--changes", options.changes, "Newest releases of each database whose changes are shown; 0 for none")
	    ->default_str(std::to_string(kDefaultChanges));
	site->add_option("--examples", options.examples, "Rows to show of each table and operation")->capture_default_str();
	AddJson(*site, command.json);
}

void RunSite(const SiteCommand& command, const Streams& streams) {
	SiteResult result;
	{
		ProgressLine line(streams.err, streams.terminal);
		result = MakeSite(command.options, ObserverOf(line, streams));
	}
	if (command.json) {
		streams.out << JsonText(ToJson(command.options, result), "\t") << "\n";
	} else {
		Print(command.options, result, streams.out);
	}
}

} // namespace tarn::publisher::site
