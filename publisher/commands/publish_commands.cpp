#include "base/text.h"
#include "publisher/changes/changes.h"
#include "publisher/commands/command_line.h"
#include "publisher/commands/common_options.h"
#include "publisher/common/json_text.h"
#include "publisher/common/publish_error.h"
#include "publisher/releases/publish.h"
#include "publisher/releases/restore.h"
#include "publisher/releases/withdraw.h"

#include <boost/algorithm/string/join.hpp>

#include <iomanip>
#include <sstream>

namespace tarn::publisher {

namespace {

struct Options {
	PublishOptions publish;
	std::optional<std::int64_t> withdraw_to;
	RestoreOptions restore;
	bool json = false;
};

void PrintDiff(const PublishResult& result, std::ostream& out) {
	if (!result.diff) {
		return;
	}
	constexpr double kPercent = 100;
	const DiffResult& diff = *result.diff;
	std::ostringstream share;
	share << std::fixed << std::setprecision(1)
	      << kPercent * static_cast<double>(diff.package_size) / static_cast<double>(result.package_size);
	out << "Diff from version " << result.data_version - 1 << ": " << HumanSize(diff.package_size) << ", "
	    << share.str() << " % of the full package; files created " << diff.created << ", replaced " << diff.replaced
	    << ", patched " << diff.patched << ", scripted " << diff.scripted << ", deleted " << diff.deleted
	    << ". Devices from version " << diff.oldest_base << " on take diff packages.\n";
}

Json::Value DiffJson(const DiffResult& diff) {
	return JsonObject({{"package_size", diff.package_size}, {"created", diff.created}, {"replaced", diff.replaced},
	    {"patched", diff.patched}, {"scripted", diff.scripted}, {"deleted", diff.deleted},
	    {"oldest_base", diff.oldest_base}});
}

Json::Value ResultJson(const PublishOptions& options, const PublishResult& result) {
	return JsonObject({{"id", options.id}, {"document", options.db_version}, {"is_published", !result.is_unchanged},
	    {"is_first", result.is_first}, {"data_version", result.data_version}, {"files", result.files},
	    {"tree_size", result.tree_size}, {"package_size", result.package_size}, {"download_link", result.download_link},
	    {"diff", result.diff ? DiffJson(*result.diff) : Json::Value()}});
}

void PrintVersion(const PublishOptions& options, const PublishResult& result, std::ostream& out) {
	// The default document is not worth a word.
	const std::string channel = options.db_version == PublishOptions().db_version ? "" : " to " + options.db_version;
	out << "Published " << options.id << " version " << result.data_version << channel << ": " << result.files
	    << " files, " << HumanSize(result.tree_size) << " in a package of " << HumanSize(result.package_size) << ", "
	    << result.download_link << "\n";
}

int RunPublish(const Options& given, const Streams& streams) {
	const PublishOptions& options = given.publish;
	PublishResult result;
	WithProgress(streams, [&](const PublishObserver& observer) { result = Publish(options, observer); });
	if (given.json) {
		streams.out << JsonText(ResultJson(options, result), "\t") << "\n";
		return kDone;
	}
	if (result.is_unchanged) {
		streams.out << "Nothing published: " << options.id << " version " << result.data_version
		            << " holds this tree.\n";
		return kDone;
	}
	PrintVersion(options, result, streams.out);
	if (result.is_first) {
		streams.out << "This is the first publication of " << options.id << " in " << options.repository
		            << ": devices that have a version of it take higher ones only.\n";
	}
	PrintDiff(result, streams.out);
	return kDone;
}

void PrintWithdrawn(const PublishOptions& options, const WithdrawResult& result, std::ostream& out) {
	if (result.published.is_unchanged) {
		out << "Nothing to do: version " << result.published.data_version << " has the content of version "
		    << result.restored << " already.\n";
		return;
	}
	PrintVersion(options, result.published, out);
	const int first = result.restored + 1;
	out << "The content is that of version " << result.restored << (result.is_rebuilt ? ", rebuilt" : "")
	    << ". Withdrawn: version " << first;
	if (first < result.withdrawn) {
		out << " to " << result.withdrawn;
	}
	out << ".\n";
	PrintDiff(result.published, out);
}

int RunWithdraw(const Options& options, const Streams& streams) {
	WithdrawResult result;
	WithProgress(streams,
	    [&](const PublishObserver& observer) { result = Withdraw(options.publish, options.withdraw_to, observer); });
	if (!options.json) {
		PrintWithdrawn(options.publish, result, streams.out);
		return kDone;
	}
	Json::Value value = ResultJson(options.publish, result.published);
	value["withdrawn"] = result.published.is_unchanged ? Json::Value() : Json::Value(result.withdrawn);
	value["restored"] = result.restored;
	value["is_rebuilt"] = result.is_rebuilt;
	streams.out << JsonText(value, "\t") << "\n";
	return kDone;
}

void PrintRestored(const RestoredDatabase& database, std::ostream& out) {
	if (database.was_named) {
		out << "Left as it is: " << database.id << ", of which the document names version " << database.data_version
		    << ".\n";
		return;
	}
	out << "Restored " << database.id << " version " << database.data_version << ", " << database.download_link
	    << ", with " << Counted(database.diffs, "diff package");
	if (database.diffs > 0) {
		out << "; devices from version " << database.oldest_base << " on take them";
	}
	out << ".\n";
}

int RunRestore(const Options& options, const Streams& streams) {
	RestoreResult result;
	WithProgress(streams, [&](const PublishObserver& observer) { result = Restore(options.restore, observer); });
	for (const RestoredDatabase& database : result.databases) {
		PrintRestored(database, streams.out);
	}
	streams.out << (result.is_written ? "Wrote " : "Nothing to write: ") << result.document << "\n";
	if (!result.failures.empty()) {
		throw PublishError(boost::algorithm::join(result.failures, " "));
	}
	return kDone;
}

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

CLI::App& AddPublish(CLI::App& app, Options& options) {
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
	return *command;
}

CLI::App& AddWithdraw(CLI::App& app, Options& options) {
	PublishOptions& publish = options.publish;
	CLI::App* command = app.add_subcommand("withdraw", "Publish the content of an earlier version as the next version");
	AddId(*command, publish.id);
	AddRepository(*command, publish.repository);
	command->add_option("--key", publish.key_file, "Private key that signs the packages")->required();
	command->add_option("--to", options.withdraw_to, "Version whose content comes back; by default the one before");
	AddNotedUrl(*command, publish.url);
	AddPublishing(*command, options);
	return *command;
}

CLI::App& AddRestore(CLI::App& app, RestoreOptions& restore) {
	CLI::App* command = app.add_subcommand("restore", "Rebuild a lost document from the packages in a repository");
	AddRepository(*command, restore.repository);
	AddPublicKeys(*command, restore.keys);
	AddOldKeys(*command, restore.keys);
	AddNotedUrl(*command, restore.url);
	command->add_option("--id", restore.ids, "Database to restore; by default all; may be repeated");
	AddDocument(*command, restore.db_version);
	command->add_option("--format-version", restore.format_version, "Use packages of this format only");
	command->add_option("--data-version", restore.data_version, "Highest version to name; by default the newest");
	command->add_option("--keep-diffs", TakeKeptDiffs(restore.keep_diffs), "Largest number of diff packages to name")
	    ->default_str("auto");
	command->add_flag("--force", restore.force, "Replace entries that the document already has");
	return *command;
}

} // namespace

void AddPublishCommands(CLI::App& app, Command& given) {
	const auto options = std::make_shared<Options>();
	OnGiven(AddPublish(app, *options), given, options, RunPublish);
	OnGiven(AddWithdraw(app, *options), given, options, RunWithdraw);
	OnGiven(AddRestore(app, options->restore), given, options, RunRestore);
}

} // namespace tarn::publisher
