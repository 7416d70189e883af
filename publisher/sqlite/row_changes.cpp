#include "publisher/sqlite/row_changes.h"

#include "publisher/sqlite/shown_value.h"
#include "publisher/sqlite/sql_text.h"

#include <SQLiteCpp/SQLiteCpp.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>

namespace tarn::publisher {

namespace {

constexpr std::size_t kMostValues = 8; // of an example

std::vector<std::string> Quoted(const std::vector<std::string>& names) {
	std::vector<std::string> quoted;
	std::transform(names.begin(), names.end(), std::back_inserter(quoted), QuotedName);
	return quoted;
}

/** The shape of a table that is only read, so that none of its names must fit into a script. */
TableShape ReadShape(const ComparedTable& table) {
	TableShape shape;
	shape.name = QuotedName(table.name);
	shape.columns = Quoted(table.columns);
	if (table.identity == RowIdentity::kRowId) {
		shape.row_id = "rowid";
		return shape;
	}
	for (const std::string& name : table.key) {
		const auto place = std::find(table.columns.begin(), table.columns.end(), name);
		shape.key.push_back(static_cast<std::size_t>(place - table.columns.begin()));
	}
	return shape;
}

/** Counts rows and makes the first ones examples. */
class ExampleTaker {
public:
	ExampleTaker(const ComparedTable& table, const ExampleStyle& style, TableChange& change)
	    : table_(table), style_(style), change_(change) {}

	/** A row that is there in one version only, so many times. */
	void Take(RowOperation operation, const SqlRow& key, const SqlRow& row, std::uint64_t times = 1) {
		if (Count(operation, times)) {
			RowExample example = {operation, Key(key), {}, 0};
			for (std::size_t i = 0; i < row.size(); ++i) {
				const std::string shown = i < kMostValues ? ShownValue(row[i], style_.is_utf8) : "";
				const bool is_new = operation == RowOperation::kInserted;
				Add(example, i, is_new ? "" : shown, is_new ? shown : "");
			}
			change_.examples.push_back(std::move(example));
		}
	}

	void TakeUpdate(const SqlRow& key, const SqlRow& before, const SqlRow& after) {
		if (Count(RowOperation::kUpdated, 1)) {
			RowExample example = {RowOperation::kUpdated, Key(key), {}, 0};
			for (std::size_t i = 0; i < before.size(); ++i) {
				if (before[i] != after[i]) {
					const auto [old_text, new_text] = ShownChange(before[i], after[i], style_.is_utf8);
					Add(example, i, old_text, new_text);
				}
			}
			change_.examples.push_back(std::move(example));
		}
	}

private:
	/** Returns whether the row is to be an example. */
	bool Count(RowOperation operation, std::uint64_t times) {
		std::uint64_t& count = change_.rows.Of(operation);
		std::size_t& examples = examples_.at(static_cast<std::size_t>(operation));
		count += times;
		return examples < style_.most && ++examples > 0;
	}

	void Add(RowExample& example, std::size_t column, const std::string& before, const std::string& after) const {
		if (example.values.size() < kMostValues) {
			example.values.push_back({ShownText(table_.columns[column]), before, after});
		} else {
			++example.more_values;
		}
	}

	std::string Key(const SqlRow& key) const {
		std::string text;
		for (std::size_t i = 0; i < key.size(); ++i) {
			text.append(text.empty() ? "" : ", ").append(ShownText(table_.key[i])).append("=");
			text.append(ShownValue(key[i], style_.is_utf8));
		}
		return text;
	}

	const ComparedTable& table_;
	const ExampleStyle& style_;
	TableChange& change_;
	std::array<std::size_t, 3> examples_ = {};
};

void CompareByKey(const DatabasePair& pair, const ComparedTable& table, ExampleTaker& taker) {
	const TableShape shape = ReadShape(table);
	ForEachOnlyIn(pair, DatabasePair::kAfter, shape, shape.columns,
	    [&](const RowKey& key, const SqlRow& row) { taker.Take(RowOperation::kInserted, key, row); });
	ForEachChanged(
	    pair, shape, [&](std::uint64_t /*number*/, const RowKey& key, const SqlRow& before, const SqlRow& after) {
		    taker.TakeUpdate(key, before, after);
	    });
	ForEachOnlyIn(pair, DatabasePair::kBefore, shape, shape.columns,
	    [&](const RowKey& key, const SqlRow& row) { taker.Take(RowOperation::kDeleted, key, row); });
}

/** Every row of a version's table, with a number that it counts for. */
std::string CountedRows(const char* schema, const ComparedTable& table, const char* count) {
	std::string list;
	for (std::size_t i = 0; i < table.columns.size(); ++i) {
		list += QuotedName(table.columns[i]) + " AS c" + std::to_string(i) + ",";
	}
	return "SELECT " + list + count + " AS n FROM " + schema + "." + QuotedName(table.name);
}

/** Rows of both versions in one sorter, which goes to a file: equal rows meet and cancel each other. */
void CompareByContent(const DatabasePair& pair, const ComparedTable& table, ExampleTaker& taker) {
	std::string columns;
	std::vector<std::string> groups;
	for (std::size_t i = 0; i < table.columns.size(); ++i) {
		const std::string name = "c" + std::to_string(i);
		columns += "," + name;
		// For SQL, 1 and 1.0 are equal, as are texts that differ in case when a column says so.
		groups.emplace_back(name).append(" COLLATE BINARY,typeof(").append(name).append(")");
	}
	SQLite::Statement rows(pair, "SELECT sum(n)" + columns + " FROM (" + CountedRows(DatabasePair::kAfter, table, "1") +
	                                 " UNION ALL " + CountedRows(DatabasePair::kBefore, table, "-1") + ") GROUP BY " +
	                                 Joined(groups) + " HAVING sum(n)<>0");
	while (rows.executeStep()) {
		const std::int64_t excess = rows.getColumn(0).getInt64();
		const SqlRow row = RowOf(rows, 1, table.columns.size());
		const auto times = static_cast<std::uint64_t>(excess > 0 ? excess : -excess);
		taker.Take(excess > 0 ? RowOperation::kInserted : RowOperation::kDeleted, {}, row, times);
	}
}

} // namespace

void CompareRows(const DatabasePair& pair, const ComparedTable& table, const ExampleStyle& style, TableChange& change) {
	ExampleTaker taker(table, style, change);
	if (table.identity == RowIdentity::kContent) {
		CompareByContent(pair, table, taker);
	} else {
		CompareByKey(pair, table, taker);
	}
	std::stable_sort(change.examples.begin(), change.examples.end(),
	    [](const RowExample& left, const RowExample& right) { return left.operation < right.operation; });
}

void CountAllRows(
    const DatabasePair& pair, const ComparedTable& table, const ExampleStyle& style, TableChange& change) {
	const bool is_new = change.kind == ChangeKind::kAdded;
	const char* schema = is_new ? DatabasePair::kAfter : DatabasePair::kBefore;
	const std::string name = QuotedName(table.name);
	ExampleTaker taker(table, style, change);
	if (!table.columns.empty()) {
		SQLite::Statement rows(pair, "SELECT " + Joined(Quoted(table.columns)) + " FROM " + schema + "." + name +
		                                 " LIMIT " + std::to_string(style.most));
		while (rows.executeStep()) {
			taker.Take(
			    is_new ? RowOperation::kInserted : RowOperation::kDeleted, {}, RowOf(rows, 0, table.columns.size()));
		}
	}
	(is_new ? change.rows.inserted : change.rows.deleted) = CountRows(pair, schema, name);
}

} // namespace tarn::publisher
