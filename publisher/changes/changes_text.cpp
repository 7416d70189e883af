#include "base/text.h"
#include "publisher/changes/changes.h"

#include <boost/algorithm/string/join.hpp>

#include <ctime>
#include <iomanip>
#include <sstream>
#include <utility>

namespace tarn::publisher {

namespace {

std::string SourceOf(const ComparedVersion& version) {
	const std::string time = TimeText(version.published.value_or(-1));
	const std::string text =
	    "Version " + std::to_string(version.version) + (time.empty() ? "" : ", published " + time) + ": from ";
	if (version.diffs == 0) {
		return text + "its full package";
	}
	return text + "the full package of version " + std::to_string(version.full_package) + " and " +
	       Counted(static_cast<std::uint64_t>(version.diffs), "diff package");
}

void PrintTotals(const ChangeTotals& totals, std::ostream& out) {
	out << "Files: " << totals.added << " added, " << totals.removed << " removed, " << totals.changed << " changed, "
	    << totals.unchanged << " unchanged; " << HumanSize(totals.size_before) << " before, "
	    << HumanSize(totals.size_after) << " after.\n";
	if (totals.databases > 0) {
		out << "Rows in " << Counted(totals.databases, "database") << ": " << RowText(totals.rows) << ".\n";
	}
	if (totals.tables_not_compared > 0) {
		out << "Not compared: " << Counted(totals.tables_not_compared, "table") << ".\n";
	}
}

void PrintExample(const RowExample& example, std::ostream& out) {
	out << "        " << RowOperationName(example.operation);
	if (example.operation == RowOperation::kUpdated) {
		out << " where " << example.key;
	}
	out << ": " << ValuesText(example) << "\n";
}

/** "5 inserted, 1 deleted"; of a table that one version has, "5 rows"; nothing when there is nothing to tell. */
std::string TableRows(const TableChange& table) {
	if (!table.obstacle.empty()) {
		return "rows not compared: " + table.obstacle;
	}
	if (table.kind != ChangeKind::kChanged) {
		return Counted(table.rows.Total(), "row");
	}
	if (table.rows.Total() == 0) {
		return "";
	}
	const bool by_content = table.identity == RowIdentity::kContent;
	return RowText(table.rows) + (by_content ? " (compared by content, for want of a key)" : "");
}

void PrintDatabase(const DatabaseChange& database, std::ostream& out) {
	for (const SettingChange& setting : database.settings) {
		out << "    " << setting.name << ": " << setting.before << " -> " << setting.after << "\n";
	}
	for (const DefinitionChange& definition : database.definitions) {
		out << "    " << definition.type << " " << definition.name << ": " << ChangeKindName(definition.kind) << "\n";
	}
	for (const TableChange& table : database.tables) {
		out << "    table " << table.name << ": " << TableText(table) << "\n";
		for (const RowExample& example : table.examples) {
			PrintExample(example, out);
		}
	}
	if (database.IsEmpty()) {
		out << "    no row and no definition differs, only how SQLite stores them or its own tables\n";
	}
}

void PrintFile(const FileChange& file, std::ostream& out) {
	constexpr int kKindWidth = 9;
	out << std::left << std::setw(kKindWidth) << ChangeKindName(file.Kind()) << std::right << Printable(file.name)
	    << " (" << SizeText(file) << ")\n";
	if (!file.note.empty()) {
		out << "    compared as bytes: " << file.note << "\n";
	}
	if (file.database) {
		PrintDatabase(*file.database, out);
	}
}

} // namespace

std::string Counted(std::uint64_t count, const std::string& one) {
	return std::to_string(count) + " " + (count == 1 ? one : one + "s");
}

std::string TimeText(std::int64_t seconds, const char* format) {
	struct tm time {};
	const std::time_t moment = seconds;
	if (seconds < 0 || gmtime_r(&moment, &time) == nullptr) {
		return "";
	}
	std::ostringstream text;
	text << std::put_time(&time, format);
	return text.str();
}

std::string RowText(const RowCounts& rows) {
	std::vector<std::string> parts;
	for (const auto& [count, name] : {std::pair(rows.inserted, RowOperation::kInserted),
	         {rows.updated, RowOperation::kUpdated}, {rows.deleted, RowOperation::kDeleted}}) {
		if (count > 0) {
			parts.push_back(std::to_string(count) + " " + RowOperationName(name));
		}
	}
	return parts.empty() ? "none" : boost::algorithm::join(parts, ", ");
}

std::string ValuesText(const RowExample& example) {
	std::vector<std::string> parts;
	for (const ValueExample& value : example.values) {
		const bool is_update = example.operation == RowOperation::kUpdated;
		// A row of one version only has one value, and the other is empty.
		parts.push_back(
		    value.column + (is_update ? ": " + value.before + " -> " + value.after : "=" + value.before + value.after));
	}
	if (example.more_values > 0) {
		parts.push_back("and " + Counted(example.more_values, "more value"));
	}
	return boost::algorithm::join(parts, ", ");
}

std::string TableText(const TableChange& table) {
	std::vector<std::string> parts;
	if (table.kind != ChangeKind::kChanged) {
		parts.emplace_back(ChangeKindName(table.kind));
	}
	if (table.has_new_definition) {
		parts.emplace_back("has a new definition");
	}
	for (const std::string& column : table.added_columns) {
		parts.push_back("column " + column + " added");
	}
	for (const std::string& column : table.removed_columns) {
		parts.push_back("column " + column + " removed");
	}
	if (std::string rows = TableRows(table); !rows.empty()) {
		parts.push_back(std::move(rows));
	}
	return boost::algorithm::join(parts, ", ");
}

std::string SizeText(const FileChange& file) {
	if (!file.before || !file.after) {
		return HumanSize((file.before ? file.before : file.after)->size);
	}
	std::string text = HumanSize(file.before->size);
	if (file.before->size != file.after->size) {
		text += " -> " + HumanSize(file.after->size);
	}
	if (file.before->executable != file.after->executable) {
		text += file.after->executable ? ", executable now" : ", no longer executable";
	}
	return text;
}

void PrintChangesText(const Changes& changes, std::size_t most_files, std::ostream& out) {
	out << "Changes of " << changes.id << " from version " << changes.from.version << " to " << changes.to.version
	    << ".\n"
	    << SourceOf(changes.from) << ".\n"
	    << SourceOf(changes.to) << ".\n";
	PrintTotals(changes.totals, out);
	std::size_t listed = 0;
	for (; listed < changes.files.size() && listed < most_files; ++listed) {
		out << (listed == 0 ? "\n" : "");
		PrintFile(changes.files[listed], out);
	}
	const std::uint64_t all = changes.totals.added + changes.totals.removed + changes.totals.changed;
	if (listed < all) {
		out << "\nNot listed: " << Counted(all - listed, "more file") << ".\n";
	}
	if (changes.is_truncated) {
		out << "The list is too long to be kept whole: some files are without their tables, or missing.\n";
	}
}

} // namespace tarn::publisher
