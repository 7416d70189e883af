/** @file What differs between two versions of an SQLite file, for people. */
#ifndef PUBLISHER_SQLITE_DATABASE_CHANGES_H
#define PUBLISHER_SQLITE_DATABASE_CHANGES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tarn::publisher {

enum class ChangeKind { kAdded, kRemoved, kChanged };
enum class RowOperation { kInserted, kUpdated, kDeleted };

/** "added", "removed" or "changed". */
const char* ChangeKindName(ChangeKind kind);
/** "inserted", "updated" or "deleted". */
const char* RowOperationName(RowOperation operation);

/** How the rows of two versions of a table find each other. */
enum class RowIdentity {
	kKey,     ///< by the primary key
	kRowId,   ///< by the row ids of a full-text table or R*Tree
	kContent, ///< by all values: without a key, a row that has changed is a row deleted and a row inserted
};

struct RowCounts {
	std::uint64_t inserted = 0;
	std::uint64_t updated = 0;
	std::uint64_t deleted = 0;

	std::uint64_t& Of(RowOperation operation);
	std::uint64_t Total() const { return inserted + updated + deleted; }
	RowCounts& operator+=(const RowCounts& other);
};

/** One column of an example; values are shortened and printable, and empty where there is no row. */
struct ValueExample {
	std::string column;
	std::string before;
	std::string after;
};

struct RowExample {
	RowOperation operation = RowOperation::kInserted;
	std::string key;                  // "id=5"; empty for a row without a key
	std::vector<ValueExample> values; // of an updated row, those that differ
	std::size_t more_values = 0;      // that are left out
};

struct TableChange {
	std::string name;
	ChangeKind kind = ChangeKind::kChanged;
	RowIdentity identity = RowIdentity::kKey;
	RowCounts rows;
	bool has_new_definition = false;
	std::vector<std::string> added_columns; // rows are compared by the columns that both versions have
	std::vector<std::string> removed_columns;
	std::string obstacle; // why its rows are not compared; empty when they are
	std::vector<RowExample> examples;
};

/** An index, trigger or view. */
struct DefinitionChange {
	ChangeKind kind = ChangeKind::kChanged;
	std::string type;
	std::string name;
};

struct SettingChange {
	std::string name;
	std::string before;
	std::string after;
};

/** What has changed in an SQLite file; nothing when only SQLite's own tables, or the order of pages, have. */
struct DatabaseChange {
	std::vector<TableChange> tables; // also those that are not compared
	std::vector<DefinitionChange> definitions;
	std::vector<SettingChange> settings;

	/** Whether all was compared, and nothing differs. */
	bool IsEmpty() const { return tables.empty() && definitions.empty() && settings.empty(); }
	std::size_t Size() const;
};

/** Compares two SQLite files; throws PublishError or SQLite::Exception when they cannot be read as such. */
[[nodiscard]] DatabaseChange CompareDatabases(
    const std::string& before, const std::string& after, std::size_t examples);

} // namespace tarn::publisher

#endif
