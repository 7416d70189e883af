#include "base/text.h"
#include "publisher/changes/changes.h"
#include "publisher/commands/command_line.h"
#include "publisher/commands/common_options.h"
#include "publisher/common/json_text.h"
#include "publisher/kits/export.h"

namespace tarn::publisher {

namespace {

struct Options : ExportOptions {
	bool json = false;
};

Json::Value ToJson(const ExportedDatabase& database, const Options& options) {
	Json::Value value = JsonObject({{"id", database.id}, {"data_version", database.data_version},
	    {"has_full_package", database.has_full}, {"diff_packages", database.diffs}});
	if (database.diffs > 0) {
		value["from"] = *options.from;
	}
	return value;
}

std::string Describe(const ExportedDatabase& database, const Options& options) {
	const std::string diffs =
	    Counted(database.diffs, "diff package") + " from version " + std::to_string(options.from.value_or(0)) + " on";
	return database.id + " version " + std::to_string(database.data_version) + ": " +
	       (database.has_full ? "the full package" : "") + (database.has_full && database.diffs > 0 ? " and " : "") +
	       (database.diffs > 0 ? diffs : "");
}

void PrintText(const Options& options, const ExportResult& result, std::ostream& out) {
	out << "Wrote " << options.file << " with packages of " << HumanSize(result.size) << ".\n";
	for (const ExportedDatabase& database : result.databases) {
		out << Describe(database, options) << ".\n";
	}
}

void PrintJson(const Options& options, const ExportResult& result, std::ostream& out) {
	const auto to_json = [&](const ExportedDatabase& database) { return ToJson(database, options); };
	const Json::Value databases = JsonArray(result.databases, to_json);
	out << JsonText(
	           JsonObject({{"file", options.file}, {"package_bytes", result.size}, {"databases", databases}}), "\t")
	    << "\n";
}

int RunExport(const Options& options, const Streams& streams) {
	ExportResult result;
	WithProgress(streams, [&](const PublishObserver& observer) { result = Export(options, observer); });
	(options.json ? PrintJson : PrintText)(options, result, streams.out);
	return kDone;
}

} // namespace

void AddExportCommand(CLI::App& app, Command& given) {
	const auto options = std::make_shared<Options>();
	CLI::App* command = app.add_subcommand("export", "Put a database into one file, for devices without a network");
	command->add_option("ID", options->id, "Database")->required();
	command->add_option("FILE", options->file, "File to write; replaced when it is there")->required();
	AddRepository(*command, options->repository);
	AddPublicKeys(*command, options->keys);
	command->add_option("--from", options->from, "Version that the devices have: only diff packages from there on");
	command->add_flag("--with-full", options->with_full, "With --from: the full package as well");
	command->add_option("--also", options->also, "Another database, by its full package; may be repeated");
	AddDocument(*command, options->db_version);
	AddJson(*command, options->json);
	OnGiven(*command, given, options, RunExport);
}

} // namespace tarn::publisher
