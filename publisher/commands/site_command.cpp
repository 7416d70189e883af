#include "base/text.h"
#include "publisher/changes/changes.h"
#include "publisher/commands/command_line.h"
#include "publisher/commands/common_options.h"
#include "publisher/common/json_text.h"
#include "publisher/site/site.h"

namespace tarn::publisher {

namespace {

using site::SiteResult;

struct Options : site::SiteOptions {
	bool json = false;
};

Json::Value ToJson(const Options& options, const SiteResult& result) {
	return JsonObject({{"out", options.out}, {"databases", result.databases}, {"versions", result.versions},
	    {"files", result.files}, {"bytes", result.bytes}, {"changes_compared", result.compared},
	    {"changes_kept", result.kept}, {"feed", result.has_feed}});
}

void Print(const Options& options, const SiteResult& result, std::ostream& out) {
	out << "Wrote " << options.out << ": " << Counted(result.databases, "database") << " with "
	    << Counted(result.versions, "version") << ", " << Counted(result.files, "file") << " ("
	    << HumanSize(result.bytes) << "); changes of " << Counted(result.compared, "release") << " compared, of "
	    << result.kept << " found by an earlier run.\n";
}

int RunSite(const Options& options, const Streams& streams) {
	SiteResult result;
	WithProgress(streams, [&](const PublishObserver& observer) { result = MakeSite(options, observer); });
	if (options.json) {
		streams.out << JsonText(ToJson(options, result), "\t") << "\n";
	} else {
		Print(options, result, streams.out);
	}
	return kDone;
}

} // namespace

void AddSiteCommand(CLI::App& app, Command& given) {
	const auto options = std::make_shared<Options>();
	CLI::App* command =
	    app.add_subcommand("site", "Write pages for people: versions, sizes, changes, channels, a feed");
	AddRepository(*command, options->repository);
	command->add_option("--out", options->out, "Directory for the pages; replaced as a whole")->required();
	command->add_option(
	    "--key", options->keys, "Public key that signs, for its fingerprint and for changes; repeatable");
	AddOldKeys(*command, options->old_keys);
	command->add_option("--url", options->url, "Where the pages are served; by default by the last publication");
	command->add_option("--title", options->title, "Title of the first page")->capture_default_str();
	command
	    ->add_option(
	        "--changes", options->changes, "Newest releases of each database whose changes are shown; 0 for none")
	    ->default_str(std::to_string(site::kDefaultChanges));
	command->add_option("--examples", options->examples, "Rows to show of each table and operation")
	    ->capture_default_str();
	AddJson(*command, options->json);
	OnGiven(*command, given, options, RunSite);
}

} // namespace tarn::publisher
