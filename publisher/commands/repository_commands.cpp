#include "base/text.h"
#include "publisher/changes/changes.h"
#include "publisher/commands/command_line.h"
#include "publisher/commands/common_options.h"
#include "publisher/common/json_text.h"
#include "publisher/releases/channels.h"
#include "publisher/releases/check_repository.h"
#include "publisher/releases/prune.h"
#include "publisher/releases/rollout.h"

namespace tarn::publisher {

namespace {

struct Options {
	PromoteOptions promote;
	RolloutOptions rollout;
	PruneOptions prune;
	RepositoryCheckOptions check;
	bool json = false;
};

constexpr char kCheckHelp[] = "Exit status: 0 all right, 1 not checked, 2 wrong usage, 3 broken for devices, 4 untidy.";

void PrintJson(const Json::Value& value, std::ostream& out) {
	out << JsonText(value, "\t") << "\n";
}

CLI::App& AddPromote(CLI::App& app, Options& options) {
	PromoteOptions& promote = options.promote;
	CLI::App* command = app.add_subcommand("promote", "Offer the version of one channel in another one");
	AddId(*command, promote.id);
	AddRepository(*command, promote.repository);
	command->add_option("--from", promote.from, "Channel that has the version: the name of its document")->required();
	command->add_option("--to", promote.to, "Channel that gets the version")->capture_default_str();
	AddPublicKeys(*command, promote.keys);
	AddOldKeys(*command, promote.keys);
	AddJson(*command, options.json);
	return *command;
}

CLI::App& AddRollout(CLI::App& app, Options& options) {
	RolloutOptions& rollout = options.rollout;
	CLI::App* command = app.add_subcommand("rollout", "Give a channel to a share of the devices, by nginx");
	command->add_option("CHANNEL", rollout.channel, "Channel for the share: the name of its document")->required();
	command->add_option("PERCENT", rollout.percent, "The share, 0 to 100, with at most two decimals")->required();
	command->add_option("--conf", rollout.conf_file, "File that nginx includes; written again as a whole")->required();
	command->add_option("--document", rollout.document, "Document that the devices ask for")->capture_default_str();
	command->add_option("--repo", rollout.repository, "Repository in which the channel must lack nothing");
	AddJson(*command, options.json);
	return *command;
}

CLI::App& AddPrune(CLI::App& app, Options& options) {
	CLI::App* command = app.add_subcommand("prune", "Remove packages that no device and no publication needs");
	command->add_option("ID", options.prune.ids, "Databases; by default all");
	AddRepository(*command, options.prune.repository);
	command->add_flag("--dry-run", options.prune.dry_run, "Remove nothing; say what would be removed");
	AddJson(*command, options.json);
	return *command;
}

CLI::App& AddCheck(CLI::App& app, Options& options) {
	CLI::App* command = app.add_subcommand("check-repo", "Check that documents and packages fit; for monitors");
	AddRepository(*command, options.check.repository);
	command->add_option("--key", options.check.keys, "Public key that signed packages; may be repeated");
	AddOldKeys(*command, options.check.keys);
	command->add_option("--document", options.check.documents, "Document that must be there; may be repeated")
	    ->capture_default_str();
	AddJson(*command, options.json);
	command->footer(kCheckHelp);
	return *command;
}

void PrintPromoted(const PromoteOptions& options, const PromoteResult& result, std::ostream& out) {
	const std::string version = options.id + " version " + std::to_string(result.data_version);
	if (!result.is_changed) {
		out << "Nothing to do: " << options.to << " names " << version << " already.\n";
		return;
	}
	out << "Promoted " << version << " from " << options.from << " to " << options.to;
	if (result.before) {
		out << ", which named version " << *result.before;
	}
	out << ": devices take " << (result.has_chain ? "diff packages" : "the full package") << ".\n";
}

Json::Value PromotedJson(const PromoteOptions& options, const PromoteResult& result) {
	return JsonObject({{"id", options.id}, {"from_document", options.from}, {"to_document", options.to},
	    {"data_version", result.data_version}, {"before", result.before ? Json::Value(*result.before) : Json::Value()},
	    {"is_changed", result.is_changed}, {"has_chain", result.has_chain}});
}

int RunPromote(const Options& options, const Streams& streams) {
	PromoteResult result;
	WithProgress(streams, [&](const PublishObserver& observer) { result = Promote(options.promote, observer); });
	if (options.json) {
		PrintJson(PromotedJson(options.promote, result), streams.out);
	} else {
		PrintPromoted(options.promote, result, streams.out);
	}
	return kDone;
}

/** What nobody has looked at; nothing where no device gets the channel. */
std::string UncheckedText(const RolloutOptions& options, Share share) {
	return options.repository.empty() && share > 0 ? " Not checked, without --repo: that " + options.channel +
	                                                     " exists, and names all that " + options.document + " names."
	                                               : "";
}

int RunRollout(const Options& options, const Streams& streams) {
	const RolloutOptions& rollout = options.rollout;
	const Share share = Rollout(rollout);
	if (options.json) {
		PrintJson(
		    JsonObject({{"channel", rollout.channel}, {"document", rollout.document}, {"percent", PercentText(share)},
		        {"conf", rollout.conf_file}, {"is_checked", !rollout.repository.empty()}}),
		    streams.out);
	} else {
		streams.out << "Wrote " << rollout.conf_file << ": " << PercentText(share)
		            << " % of the devices that ask for document " << rollout.document << " get " << rollout.channel
		            << " when nginx has been reloaded." << UncheckedText(rollout, share) << "\n";
	}
	return kDone;
}

Json::Value PrunedJson(const PruneOptions& options, const PruneResult& result) {
	const Json::Value files = JsonArray(result.files, [](const PruneResult::File& file) {
		return JsonObject({{"path", file.path}, {"bytes", file.size}});
	});
	return JsonObject({{"dry_run", options.dry_run}, {"bytes", result.bytes}, {"files", files}});
}

int RunPrune(const Options& options, const Streams& streams) {
	PruneResult result;
	WithProgress(streams, [&](const PublishObserver& observer) { result = Prune(options.prune, observer); });
	if (options.json) {
		PrintJson(PrunedJson(options.prune, result), streams.out);
		return kDone;
	}
	const char* verb = options.prune.dry_run ? "Removable: " : "Removed ";
	for (const PruneResult::File& file : result.files) {
		streams.out << verb << file.path << " (" << HumanSize(file.size) << ")\n";
	}
	streams.out << verb << Counted(result.files.size(), "file") << ", " << result.bytes << " bytes.\n";
	return kDone;
}

const char* StatusOf(const CheckResult& result) {
	return result.broken > 0 ? "broken" : result.untidy > 0 ? "untidy" : "ok";
}

Json::Value CheckedJson(const RepositoryCheckOptions& options, const CheckResult& result) {
	const Json::Value problems = JsonArray(result.problems, [](const RepositoryProblem& problem) {
		return JsonObject({{"severity", problem.severity == Severity::kBroken ? "broken" : "untidy"},
		    {"where", Printable(problem.where)}, {"problem", Printable(problem.what)}});
	});
	return JsonObject({{"status", StatusOf(result)}, {"signatures_checked", !options.keys.empty()},
	    {"publishing", result.is_publishing}, {"documents", result.documents}, {"entries", result.entries},
	    {"packages", result.packages}, {"bytes", result.bytes}, {"broken", result.broken}, {"untidy", result.untidy},
	    {"removable_files", result.removable_files}, {"removable_bytes", result.removable_bytes},
	    {"problems", problems}});
}

void PrintChecked(const RepositoryCheckOptions& options, const CheckResult& result, std::ostream& out) {
	for (const RepositoryProblem& problem : result.problems) {
		out << (problem.severity == Severity::kBroken ? "broken: " : "untidy: ") << Printable(problem.where) << ": "
		    << Printable(problem.what) << ".\n";
	}
	if (const std::uint64_t all = result.broken + result.untidy; all > result.problems.size()) {
		out << "and " << all - result.problems.size() << " more problems\n";
	}
	out << StatusOf(result) << ": " << Counted(result.documents, "document") << ", "
	    << Counted(result.packages, "package") << " (" << HumanSize(result.bytes) << "), " << result.broken
	    << " broken, " << result.untidy << " untidy; signatures "
	    << (options.keys.empty() ? "not checked, without --key" : "checked") << ". ";
	if (result.is_publishing) {
		out << "A publisher is at work, so only what documents name was checked.\n";
	} else {
		out << "prune would remove " << Counted(result.removable_files, "file") << " ("
		    << HumanSize(result.removable_bytes) << ").\n";
	}
}

int RunCheck(const Options& options, const Streams& streams) {
	CheckResult result;
	WithProgress(streams, [&](const PublishObserver& observer) { result = CheckRepository(options.check, observer); });
	if (options.json) {
		PrintJson(CheckedJson(options.check, result), streams.out);
	} else {
		PrintChecked(options.check, result, streams.out);
	}
	return result.broken > 0 ? kBroken : result.untidy > 0 ? kUntidy : kDone;
}

} // namespace

void AddRepositoryCommands(CLI::App& app, Command& given) {
	const auto options = std::make_shared<Options>();
	OnGiven(AddPromote(app, *options), given, options, RunPromote);
	OnGiven(AddRollout(app, *options), given, options, RunRollout);
	OnGiven(AddPrune(app, *options), given, options, RunPrune);
	OnGiven(AddCheck(app, *options), given, options, RunCheck);
}

} // namespace tarn::publisher
