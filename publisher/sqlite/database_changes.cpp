#include "publisher/sqlite/database_changes.h"

#include "publisher/sqlite/row_changes.h"
#include "publisher/sqlite/shown_value.h"
#include "publisher/sqlite/table_shape.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace tarn::publisher {

namespace {

/** Calls back with each name of two maps in order, and what each map has for it, or a null pointer. */
template<typename Map, typename Take>
void ForEachOfBoth(const Map& before, const Map& after, const Take& take) {
	const auto find = [](const Map& map, const typename Map::key_type& name) {
		const auto at = map.find(name);
		return at == map.end() ? nullptr : &at->second;
	};
	Map all = before;
	all.insert(after.begin(), after.end());
	for (const auto& [name, any] : all) {
		take(name, find(before, name), find(after, name));
	}
}

/** The names of one list that the other list has, or lacks. */
std::vector<std::string> Chosen(
    const std::vector<std::string>& names, const std::vector<std::string>& others, bool in_others) {
	std::vector<std::string> chosen;
	std::copy_if(names.begin(), names.end(), std::back_inserter(chosen), [&](const std::string& name) {
		return (std::find(others.begin(), others.end(), name) != others.end()) == in_others;
	});
	return chosen;
}

std::vector<std::string> AllShown(std::vector<std::string> names) {
	std::transform(names.begin(), names.end(), names.begin(), [](const std::string& name) { return ShownText(name); });
	return names;
}

/** The steps of CompareDatabases(). */
class DatabaseComparison {
public:
	DatabaseComparison(const std::string& before, const std::string& after, std::size_t examples)
	    : pair_(before, after),
	      before_(AloneUri(before), SQLite::OPEN_READONLY | SQLite::OPEN_URI),
	      after_(AloneUri(after), SQLite::OPEN_READONLY | SQLite::OPEN_URI) {
		// Large sorts go to files; nothing in the files' schemas can do more than read.
		for (const char* pragma : {"PRAGMA main.cache_size=-8192", "PRAGMA next.cache_size=-8192",
		         "PRAGMA temp_store=FILE", "PRAGMA trusted_schema=OFF", "PRAGMA cell_size_check=ON"}) {
			SQLite::Statement(pair_, pragma).executeStep();
		}
		style_ = {examples, Setting(DatabasePair::kBefore, "encoding") == "UTF-8"};
	}

	DatabaseChange Run() {
		for (const char* name : {"page_size", "user_version", "application_id", "auto_vacuum", "journal_mode"}) {
			CompareSetting(name);
		}
		CompareDefinitions();
		ForEachOfBoth(TableSchemasOf(pair_, DatabasePair::kBefore, before_),
		    TableSchemasOf(pair_, DatabasePair::kAfter, after_),
		    [this](const std::string& name, const TableSchema* before, const TableSchema* after) {
			    AddTable(name, before, after);
		    });
		return std::move(change_);
	}

private:
	std::string Setting(const char* schema, const std::string& name) const {
		SQLite::Statement query(pair_, std::string("PRAGMA ") + schema + "." + name);
		return query.executeStep() ? query.getColumn(0).getText() : "";
	}

	void CompareSetting(const std::string& name) {
		const std::string before = Setting(DatabasePair::kBefore, name);
		const std::string after = Setting(DatabasePair::kAfter, name);
		if (before != after) {
			change_.settings.push_back({name, before, after});
		}
	}

	void CompareDefinitions() {
		ForEachOfBoth(DefinitionsOf(pair_, DatabasePair::kBefore), DefinitionsOf(pair_, DatabasePair::kAfter),
		    [this](
		        const std::pair<std::string, std::string>& name, const std::string* before, const std::string* after) {
			    if (before == nullptr || after == nullptr || *before != *after) {
				    change_.definitions.push_back(
				        {KindOf(before, after), ShownText(name.first), ShownText(name.second)});
			    }
		    });
	}

	static ChangeKind KindOf(const void* before, const void* after) {
		return before == nullptr ? ChangeKind::kAdded : after == nullptr ? ChangeKind::kRemoved : ChangeKind::kChanged;
	}

	void AddTable(const std::string& name, const TableSchema* before, const TableSchema* after) {
		TableChange change;
		change.name = ShownText(name);
		change.kind = KindOf(before, after);
		try {
			if (before != nullptr && after != nullptr) {
				CompareTable(name, *before, *after, change);
			} else if (const TableSchema* only = before != nullptr ? before : after; only != nullptr) {
				CountTable(name, *only, change);
			}
		} catch (const SQLite::Exception& error) {
			if (error.getErrorCode() != SQLITE_ERROR) {
				throw;
			}
			// A collation or a function that is not built in: nobody knows what has changed.
			change.rows = {};
			change.examples.clear();
			change.obstacle = error.what();
		}
		change.obstacle = ShownText(change.obstacle);
		const bool has_changed = change.kind != ChangeKind::kChanged || change.has_new_definition ||
		                         change.rows.Total() > 0 || !change.obstacle.empty();
		if (has_changed) {
			change_.tables.push_back(std::move(change));
		}
	}

	void CountTable(const std::string& name, const TableSchema& schema, TableChange& change) const {
		change.obstacle = schema.obstacle;
		if (schema.obstacle.empty()) {
			CountAllRows(pair_, {name, schema.columns, {}, RowIdentity::kContent}, style_, change);
		}
	}

	void CompareTable(
	    const std::string& name, const TableSchema& before, const TableSchema& after, TableChange& change) const {
		change.has_new_definition = before.sql != after.sql;
		change.obstacle = ObstacleOf(before, after);
		if (!change.obstacle.empty()) {
			return;
		}
		change.added_columns = AllShown(Chosen(after.columns, before.columns, false));
		change.removed_columns = AllShown(Chosen(before.columns, after.columns, false));
		ComparedTable table = {name, Chosen(after.columns, before.columns, true), {}, IdentityOf(name, before, after)};
		change.identity = table.identity;
		if (table.columns.empty()) {
			change.obstacle = "its two versions have no column in common";
			return;
		}
		if (table.identity == RowIdentity::kRowId) {
			table.key = {"rowid"};
		} else if (table.identity == RowIdentity::kKey) {
			std::transform(after.key.begin(), after.key.end(), std::back_inserter(table.key),
			    [](const KeyColumn& column) { return column.name; });
		}
		CompareRows(pair_, table, style_, change);
	}

	static std::string ObstacleOf(const TableSchema& before, const TableSchema& after) {
		if (!before.obstacle.empty() || !after.obstacle.empty()) {
			return before.obstacle.empty() ? after.obstacle : before.obstacle;
		}
		return before.is_virtual != after.is_virtual ? "it is a virtual table in one version only" : "";
	}

	RowIdentity IdentityOf(const std::string& name, const TableSchema& before, const TableSchema& after) const {
		if (before.is_virtual) {
			return RowIdentity::kRowId;
		}
		// Another collation or type would make other rows equal, and no index of the other version would find them.
		// Rows with NULL in their keys, which equals nothing, are told apart by what else they hold.
		const bool has_key = !before.key.empty() && before.key == after.key &&
		                     !(HasNullKey(pair_, DatabasePair::kBefore, name, before.key) &&
		                         HasNullKey(pair_, DatabasePair::kAfter, name, after.key));
		return has_key ? RowIdentity::kKey : RowIdentity::kContent;
	}

	DatabasePair pair_;
	SQLite::Database before_;
	SQLite::Database after_;
	ExampleStyle style_;
	DatabaseChange change_;
};

} // namespace

const char* ChangeKindName(ChangeKind kind) {
	return kind == ChangeKind::kAdded ? "added" : kind == ChangeKind::kRemoved ? "removed" : "changed";
}

const char* RowOperationName(RowOperation operation) {
	return operation == RowOperation::kInserted  ? "inserted"
	       : operation == RowOperation::kUpdated ? "updated"
	                                             : "deleted";
}

std::uint64_t& RowCounts::Of(RowOperation operation) {
	return operation == RowOperation::kInserted ? inserted : operation == RowOperation::kUpdated ? updated : deleted;
}

RowCounts& RowCounts::operator+=(const RowCounts& other) {
	inserted += other.inserted;
	updated += other.updated;
	deleted += other.deleted;
	return *this;
}

std::size_t DatabaseChange::Size() const {
	std::size_t size = tables.size() + definitions.size() + settings.size();
	for (const TableChange& table : tables) {
		size += table.examples.size() + table.added_columns.size() + table.removed_columns.size();
	}
	return size;
}

DatabaseChange CompareDatabases(const std::string& before, const std::string& after, std::size_t examples) {
	return DatabaseComparison(before, after, examples).Run();
}

} // namespace tarn::publisher
