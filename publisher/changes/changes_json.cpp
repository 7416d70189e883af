#include "publisher/changes/changes.h"
#include "publisher/common/json_text.h"

#include <json/json.h>

namespace tarn::publisher {

namespace {

const char* IdentityName(RowIdentity identity) {
	return identity == RowIdentity::kKey ? "key" : identity == RowIdentity::kRowId ? "row id" : "content";
}

Json::Value ToJson(const RowCounts& rows) {
	Json::Value value(Json::objectValue);
	value["inserted"] = Json::UInt64{rows.inserted};
	value["updated"] = Json::UInt64{rows.updated};
	value["deleted"] = Json::UInt64{rows.deleted};
	return value;
}

Json::Value ToJson(const ComparedVersion& version) {
	Json::Value value(Json::objectValue);
	value["version"] = version.version;
	value["full_package"] = version.full_package;
	value["diff_packages"] = version.diffs;
	value["published"] = version.published ? Json::Value(*version.published) : Json::Value();
	return value;
}

Json::Value ToJson(const ChangeTotals& totals) {
	Json::Value value(Json::objectValue);
	Json::Value& files = value["files"];
	files["added"] = Json::UInt64{totals.added};
	files["removed"] = Json::UInt64{totals.removed};
	files["changed"] = Json::UInt64{totals.changed};
	files["unchanged"] = Json::UInt64{totals.unchanged};
	value["size_before"] = Json::UInt64{totals.size_before};
	value["size_after"] = Json::UInt64{totals.size_after};
	value["databases"] = Json::UInt64{totals.databases};
	value["tables_not_compared"] = Json::UInt64{totals.tables_not_compared};
	value["rows"] = ToJson(totals.rows);
	return value;
}

Json::Value ToJson(const RowExample& example) {
	Json::Value value(Json::objectValue);
	value["operation"] = RowOperationName(example.operation);
	value["key"] = example.key.empty() ? Json::Value() : Json::Value(example.key);
	value["more_values"] = Json::UInt64{example.more_values};
	Json::Value& values = value["values"] = Json::Value(Json::arrayValue);
	for (const ValueExample& shown : example.values) {
		Json::Value item(Json::objectValue);
		item["column"] = shown.column;
		item["before"] = shown.before.empty() ? Json::Value() : Json::Value(shown.before);
		item["after"] = shown.after.empty() ? Json::Value() : Json::Value(shown.after);
		values.append(std::move(item));
	}
	return value;
}

Json::Value ToJson(const std::vector<std::string>& names) {
	Json::Value value(Json::arrayValue);
	for (const std::string& name : names) {
		value.append(name);
	}
	return value;
}

Json::Value ToJson(const TableChange& table) {
	Json::Value value(Json::objectValue);
	value["name"] = table.name;
	value["change"] = ChangeKindName(table.kind);
	value["new_definition"] = table.has_new_definition;
	value["added_columns"] = ToJson(table.added_columns);
	value["removed_columns"] = ToJson(table.removed_columns);
	if (!table.obstacle.empty()) {
		value["not_compared"] = table.obstacle;
		return value;
	}
	value["compared_by"] =
	    table.kind == ChangeKind::kChanged ? Json::Value(IdentityName(table.identity)) : Json::Value();
	value["rows"] = ToJson(table.rows);
	Json::Value& examples = value["examples"] = Json::Value(Json::arrayValue);
	for (const RowExample& example : table.examples) {
		examples.append(ToJson(example));
	}
	return value;
}

Json::Value ToJson(const DatabaseChange& database) {
	Json::Value value(Json::objectValue);
	Json::Value& tables = value["tables"] = Json::Value(Json::arrayValue);
	for (const TableChange& table : database.tables) {
		tables.append(ToJson(table));
	}
	Json::Value& definitions = value["definitions"] = Json::Value(Json::arrayValue);
	for (const DefinitionChange& definition : database.definitions) {
		Json::Value item(Json::objectValue);
		item["type"] = definition.type;
		item["name"] = definition.name;
		item["change"] = ChangeKindName(definition.kind);
		definitions.append(std::move(item));
	}
	Json::Value& settings = value["settings"] = Json::Value(Json::objectValue);
	for (const SettingChange& setting : database.settings) {
		settings[setting.name]["before"] = setting.before;
		settings[setting.name]["after"] = setting.after;
	}
	return value;
}

Json::Value ToJson(const std::optional<FileState>& state) {
	Json::Value value;
	if (state) {
		value["size"] = Json::UInt64{state->size};
		value["executable"] = state->executable;
	}
	return value;
}

Json::Value ToJson(const FileChange& file) {
	Json::Value value(Json::objectValue);
	value["name"] = file.name;
	value["change"] = ChangeKindName(file.Kind());
	value["before"] = ToJson(file.before);
	value["after"] = ToJson(file.after);
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
