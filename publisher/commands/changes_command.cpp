#include "publisher/commands/changes_command.h"

#include "publisher/commands/common_options.h"
#include "publisher/common/publish_error.h"
#include "publisher/repository/document.h"

#include <CLI/CLI.hpp>

#include <optional>
#include <string>

namespace tarn::publisher {

namespace {

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

} // namespace

void AddChangesCommand(CLI::App& app, ChangesCommand& command) {
	ChangesOptions& options = command.options;
	CLI::App* changes = app.add_subcommand("changes", "Show what a release changes: files, and rows of SQLite files");
	AddId(*changes, options.id);
	changes->add_option("FROM", command.from, "Version before; by default the one before TO");
	changes->add_option("TO", command.to, "Version after; by default the newest of the document");
	// The value of an unknown option seems to be a version, so options are judged first.
	changes->final_callback([&command] {
		command.options.from = TakeVersion("FROM", command.from);
		command.options.to = TakeVersion("TO", command.to);
	});
	AddRepository(*changes, options.repository);
	AddPublicKeys(*changes, options.keys).allow_extra_args(false);
	AddDocument(*changes, options.db_version);
	changes
	    ->add_option(
	        "--examples", TakeCount("--examples", options.examples), "Rows to show of each table and operation")
	    ->default_str("3");
	changes->add_option("--limit", TakeCount("--limit", command.most_files), "Files to list in text")
	    ->default_str("100");
	AddJson(*changes, command.json);
}

void PrintChanges(const ChangesCommand& command, const Changes& changes, std::ostream& out) {
	if (command.json) {
		PrintChangesJson(changes, out);
	} else {
		PrintChangesText(changes, command.most_files, out);
	}
}

} // namespace tarn::publisher
