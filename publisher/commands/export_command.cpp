#include "publisher/commands/export_command.h"

#include "base/text.h"
#include "publisher/commands/common_options.h"
#include "publisher/common/json_text.h"

#include <CLI/CLI.hpp>

namespace tarn::publisher {

namespace {

Json::Value ToJson(const ExportedDatabase& database, const ExportOptions& options) {
	Json::Value value(Json::objectValue);
	value["id"] = database.id;
	value["data_version"] = database.data_version;
	value["full_package"] = database.has_full;
	value["diff_packages"] = Json::Value::UInt64{database.diffs};
	if (database.diffs > 0) {
		value["from"] = *options.from;
	}
	return value;
}

std::string Describe(const ExportedDatabase& database, const ExportOptions& options) {
	const std::string diffs = std::to_string(database.diffs) +
	                          (database.diffs == 1 ? " diff package" : " diff packages") + " from version " +
	                          std::to_string(options.from.value_or(0)) + " on";
	return database.id + " version " + std::to_string(database.data_version) + ": " +
	       (database.has_full ? "the full package" : "") + (database.has_full && database.diffs > 0 ? " and " : "") +
	       (database.diffs > 0 ? diffs : "");
}

} // namespace

void AddExport(CLI::App& app, ExportOptions& options, bool& json) {
	CLI::App* command = app.add_subcommand("export", "Put a database into one file, for devices without a network");
	command->add_option("ID", options.id, "Database")->required();
	command->add_option("FILE", options.file, "File to write; replaced when it is there")->required();
	AddRepository(*command, options.repository);
	AddPublicKeys(*command, options.keys);
	command->add_option("--from", options.from, "Version that the devices have: only diff packages from there on");
	command->add_flag("--with-full", options.with_full, "With --from: the full package as well");
	command->add_option("--also", options.also, "Another database, by its full package; may be repeated");
	AddDocument(*command, options.db_version);
	AddJson(*command, json);
}

void PrintExported(const ExportOptions& options, const ExportResult& result, bool json, std::ostream& out) {
	if (!json) {
		out << "Wrote " << options.file << " with packages of " << HumanSize(result.size) << ".\n";
		for (const ExportedDatabase& database : result.databases) {
			out << Describe(database, options) << ".\n";
		}
		return;
	}
	Json::Value value(Json::objectValue);
	value["file"] = options.file;
	value["package_bytes"] = Json::Value::UInt64{result.size};
	value["databases"] = Json::Value(Json::arrayValue);
	for (const ExportedDatabase& database : result.databases) {
		value["databases"].append(ToJson(database, options));
	}
	out << JsonText(value, "\t") << "\n";
}

} // namespace tarn::publisher
