#include "publisher/changes/changes.h"
#include "publisher/common/json_text.h"

#include <json/json.h>

namespace tarn::publisher {

namespace {

const char* IdentityName(RowIdentity identity) {
	return identity == RowIdentity::kKey ? "key" : identity == RowIdentity::kRowId ? "row id" : "content";
}

Json::Value TextOrNull(const std::string& text) {
	return text.empty() ? Json::Value() : Json::Value(text);
}

Json::Value ToJson(const RowCounts& rows) {
	return JsonObject({{"inserted", rows.inserted}, {"updated", rows.updated}, {"deleted", rows.deleted}});
}

Json::Value ToJson(const ComparedVersion& version) {
	return JsonObject(
	    {{"version", version.version}, {"full_package", version.full_package}, {"diff_packages", version.diffs},
	        {"published", version.published ? Json::Value(*version.published) : Json::Value()}});
}

Json::Value ToJson(const ChangeTotals& totals) {
	const Json::Value files = JsonObject({{"added", totals.added}, {"removed", totals.removed},
	    {"changed", totals.changed}, {"unchanged", totals.unchanged}});
	return JsonObject({{"files", files}, {"size_before", totals.size_before}, {"size_after", totals.size_after},
	    {"databases", totals.databases}, {"tables_not_compared", totals.tables_not_compared},
	    {"rows", ToJson(totals.rows)}});
}

Json::Value ToJson(const RowExample& example) {
	const Json::Value values = JsonArray(example.values, [](const ValueExample& value) {
		return JsonObject(
		    {{"column", value.column}, {"before", TextOrNull(value.before)}, {"after", TextOrNull(value.after)}});
	});
	return JsonObject({{"operation", RowOperationName(example.operation)}, {"key", TextOrNull(example.key)},
	    {"more_values", example.more_values}, {"values", values}});
}

Json::Value ToJson(const std::vector<std::string>& names) {
	return JsonArray(names, [](const std::string& name) { return name; });
}

Json::Value ToJson(const TableChange& table) {
	Json::Value value = JsonObject(
	    {{"name", table.name}, {"change", ChangeKindName(table.kind)}, {"new_definition", table.has_new_definition},
	        {"added_columns", ToJson(table.added_columns)}, {"removed_columns", ToJson(table.removed_columns)}});
	if (!table.obstacle.empty()) {
		value["not_compared"] = table.obstacle;
		return value;
	}
	value["compared_by"] =
	    table.kind == ChangeKind::kChanged ? Json::Value(IdentityName(table.identity)) : Json::Value();
	value["rows"] = ToJson(table.rows);
	value["examples"] = JsonArray(table.examples, [](const RowExample& example) { return ToJson(example); });
	return value;
}

Json::Value ToJson(const DatabaseChange& database) {
	const Json::Value tables = JsonArray(database.tables, [](const TableChange& table) { return ToJson(table); });
	const Json::Value definitions = JsonArray(database.definitions, [](const DefinitionChange& definition) {
		return JsonObject(
		    {{"type", definition.type}, {"name", definition.name}, {"change", ChangeKindName(definition.kind)}});
	});
	Json::Value settings(Json::objectValue);
	for (const SettingChange& setting : database.settings) {
		settings[setting.name] = JsonObject({{"before", setting.before}, {"after", setting.after}});
	}
	return JsonObject({{"tables", tables}, {"definitions", definitions}, {"settings", settings}});
}

Json::Value ToJson(const std::optional<FileState>& state) {
	return state ? JsonObject({{"size", state->size}, {"executable", state->executable}}) : Json::Value();
}

Json::Value ToJson(const FileChange& file) {
	Json::Value value = JsonObject({{"name", file.name}, {"change", ChangeKindName(file.Kind())},
	    {"before", ToJson(file.before)}, {"after", ToJson(file.after)}});
	if (!file.note.empty()) {
		value["compared_as_bytes"] = file.note;
	}
	if (file.database) {
		value["database"] = ToJson(*file.database);
	}
	return value;
}

} // namespace

void PrintChangesJson(const Changes& changes, std::ostream& out) {
	const auto print = [&out](const char* name, const Json::Value& value) {
		out << "\t\"" << name << "\" : " << JsonText(value) << ",\n";
	};
	out << "{\n";
	print("id", changes.id);
	print("from", ToJson(changes.from));
	print("to", ToJson(changes.to));
	print("totals", ToJson(changes.totals));
	print("truncated", changes.is_truncated);
	out << "\t\"files\" : [";
	bool is_first = true;
	for (const FileChange& file : changes.files) { // one by one, so that the text of all is never in memory
		out << (is_first ? "\n\t\t" : ",\n\t\t") << JsonText(ToJson(file));
		is_first = false;
	}
	out << (is_first ? "]" : "\n\t]") << "\n}\n";
}

} // namespace tarn::publisher
