#include "base/text.h"
#include "publisher/site/page_parts.h"
#include "publisher/site/pages.h"

#include <boost/algorithm/string/replace.hpp>

namespace tarn::publisher::site {

namespace {

void ViewTotals(const ChangeTotals& totals, Markup& page) {
	BeginFacts(page);
	AddFact(page, "Files added", std::to_string(totals.added));
	AddFact(page, "Files removed", std::to_string(totals.removed));
	AddFact(page, "Files changed", std::to_string(totals.changed));
	AddFact(page, "Files unchanged", std::to_string(totals.unchanged));
	AddFact(page, "Size of all files", HumanSize(totals.size_before) + " → " + HumanSize(totals.size_after));
	if (totals.databases > 0) {
		AddFact(page, "Rows in SQLite files", RowText(totals.rows));
	}
	if (totals.tables_not_compared > 0) {
		AddFact(page, "Tables not compared", std::to_string(totals.tables_not_compared));
	}
	page.End().Line();
}

void ViewExamples(const TableChange& table, Markup& page) {
	if (table.examples.empty()) {
		return;
	}
	page.Begin("details").Leaf("summary", "Rows, for example").Begin("ul");
	for (const RowExample& example : table.examples) {
		page.Begin("li").Leaf("span", {{"class", "kind"}}, RowOperationName(example.operation)).Say(" ");
		const bool has_key = example.operation == RowOperation::kUpdated && !example.key.empty();
		page.Leaf("code", (has_key ? example.key + ": " : "") + ValuesText(example)).End().Line();
	}
	page.End().End();
}

void ViewDatabase(const DatabaseChange& database, Markup& page) {
	if (database.IsEmpty()) {
		page.Leaf("p", "No row and no definition differs, only how SQLite stores them.");
		return;
	}
	page.Begin("ul").Line();
	for (const SettingChange& setting : database.settings) {
		page.Leaf("li", setting.name + ": " + setting.before + " → " + setting.after).Line();
	}
	for (const DefinitionChange& definition : database.definitions) {
		page.Begin("li").Say(definition.type + " ").Leaf("code", definition.name);
		page.Say(std::string(": ") + ChangeKindName(definition.kind)).End().Line();
	}
	for (const TableChange& table : database.tables) {
		page.Begin("li").Say("table ").Leaf("code", table.name).Say(": " + TableText(table));
		ViewExamples(table, page);
		page.End().Line();
	}
	page.End();
}

void ViewFile(const FileChange& file, Markup& page) {
	page.Begin("tr").Leaf("td", {{"class", "kind"}}, ChangeKindName(file.Kind()));
	page.Begin("td", {{"class", "rows"}}).Begin("strong").Leaf("code", file.name).End();
	if (!file.note.empty()) {
		page.Leaf("p", "compared as bytes: " + file.note);
	}
	if (file.database) {
		ViewDatabase(*file.database, page);
	}
	const std::string size = boost::algorithm::replace_first_copy(SizeText(file), "->", "→");
	page.End().Leaf("td", {{"class", "number"}}, size).End().Line();
}

void ViewFiles(const Changes& changes, Markup& page) {
	BeginTable(page, "Changed files", {{"Change"}, {"File, its tables and rows"}, {"Size", "number"}});
	for (const FileChange& file : changes.files) {
		ViewFile(file, page);
	}
	EndTable(page);
	const std::uint64_t all = changes.totals.added + changes.totals.removed + changes.totals.changed;
	if (all > changes.files.size()) {
		page.Leaf("p", "Not listed: " + Counted(all - changes.files.size(), "more file") + ".").Line();
	}
	if (changes.is_truncated) {
		page.Leaf("p", "The list is too long to be shown whole: some files are without their tables, or missing.")
		    .Line();
	}
}

} // namespace

std::string ViewChanges(const Changes& changes) {
	Markup page;
	page.Begin("section");
	ViewTotals(changes.totals, page);
	if (changes.files.empty()) {
		page.Leaf("p", "No file differs.");
	} else {
		ViewFiles(changes, page);
	}
	page.End().Line();
	return page.Text();
}

} // namespace tarn::publisher::site
