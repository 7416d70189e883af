#include "publisher/changes/changes.h"
#include "publisher/commands/command_line.h"
#include "publisher/commands/common_options.h"
#include "publisher/common/publish_error.h"
#include "publisher/repository/document.h"

#include <optional>

namespace tarn::publisher {

namespace {

struct Options : ChangesOptions {
	std::optional<std::string> from_word;
	std::optional<std::string> to_word;
	std::size_t most_files = 100; // that are listed in text
	bool json = false;
};

/** A version: digits alone; no value for a word that was not given. */
std::optional<int> TakeVersion(const std::string& name, const std::optional<std::string>& word) {
	const std::optional<int> version = ParseVersion(word.value_or(""));
	if (!version && word) {
		throw UsageError(name + " \"" + *word + "\" must be the number of a version.");
	}
	return version;
}

/** Takes a number that is not negative. */
CLI::callback_t TakeCount(const std::string& name, std::size_t& count) {
	return [name, &count](const CLI::results_t& words) {
		const std::optional<int> number = ParseVersion(words.front());
		if (!number) {
			throw UsageError(name + " \"" + words.front() + "\" must be a number, 0 or more.");
		}
		count = static_cast<std::size_t>(*number);
		return true;
	};
}

int RunChanges(const Options& given, const Streams& streams) {
	auto options = static_cast<const ChangesOptions&>(given);
	// Only now: an unknown option's value looks like a version, and the parser has refused unknown options by now.
	options.from = TakeVersion("FROM", given.from_word);
	options.to = TakeVersion("TO", given.to_word);
	Changes changes;
	WithProgress(streams, [&](const PublishObserver& observer) { changes = FindChanges(options, observer); });
	if (given.json) {
		PrintChangesJson(changes, streams.out);
	} else {
		PrintChangesText(changes, given.most_files, streams.out);
	}
	return kDone;
}

} // namespace

void AddChangesCommand(CLI::App& app, Command& given) {
	const auto options = std::make_shared<Options>();
	CLI::App* changes = app.add_subcommand("changes", "Show what a release changes: files, and rows of SQLite files");
	AddId(*changes, options->id);
	changes->add_option("FROM", options->from_word, "Version before; by default the one before TO");
	changes->add_option("TO", options->to_word, "Version after; by default the newest of the document");
	AddRepository(*changes, options->repository);
	AddPublicKeys(*changes, options->keys);
	AddDocument(*changes, options->db_version);
	changes
	    ->add_option(
	        "--examples", TakeCount("--examples", options->examples), "Rows to show of each table and operation")
	    ->default_str("3");
	changes->add_option("--limit", TakeCount("--limit", options->most_files), "Files to list in text")
	    ->default_str("100");
	AddJson(*changes, options->json);
	OnGiven(*changes, given, options, RunChanges);
}

} // namespace tarn::publisher
