/** @file What a release changes, for people. */
#ifndef PUBLISHER_CHANGES_CHANGES_H
#define PUBLISHER_CHANGES_CHANGES_H

#include "publisher/packages/observer.h"
#include "publisher/sqlite/database_changes.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace tarn::publisher {

/** What a list of changes holds at most: files, their tables and definitions, and examples, counted together. */
constexpr std::size_t kMostListedChanges = 100000;
constexpr std::size_t kMostExamples = 1000;

struct ChangesOptions {
	std::string repository;
	std::string id;
	std::vector<std::string> keys; // public keys, one of which must have signed a package
	std::string db_version = "1";
	std::optional<int> from;  // the version before `to` unless it is given
	std::optional<int> to;    // the newest version of the document unless it is given
	std::size_t examples = 3; // of rows, at most so many of each operation and table
	std::size_t most_listed = kMostListedChanges;
};

struct FileState {
	std::uint64_t size = 0;
	bool executable = false;
};

struct FileChange {
	std::string name;
	std::optional<FileState> before;
	std::optional<FileState> after;
	std::optional<DatabaseChange> database; // of an SQLite file in both versions
	std::string note;                       // why an SQLite file is compared as bytes; empty otherwise

	ChangeKind Kind() const {
		return !before ? ChangeKind::kAdded : !after ? ChangeKind::kRemoved : ChangeKind::kChanged;
	}
};

/** A version, and which packages it was taken from. */
struct ComparedVersion {
	int version = 0;
	int full_package = 0; // the version of the full package that it begins with
	int diffs = 0;        // number of diff packages that were applied to it
	std::optional<int> published;
};

struct ChangeTotals {
	std::uint64_t added = 0;
	std::uint64_t removed = 0;
	std::uint64_t changed = 0;
	std::uint64_t unchanged = 0;
	std::uint64_t size_before = 0; // of all files
	std::uint64_t size_after = 0;
	std::uint64_t databases = 0; // among the changed files, those whose rows were compared
	std::uint64_t tables_not_compared = 0;
	RowCounts rows;
};

struct Changes {
	std::string id;
	ComparedVersion from;
	ComparedVersion to;
	ChangeTotals totals; // of everything, whatever the list leaves out
	std::vector<FileChange> files;
	bool is_truncated = false; // whether the list leaves anything out
};

/**
 * Compares two published versions of a database. Takes each from its full package, or from the nearest full package
 * below it through diff packages, which are applied as devices do. Needs room for two trees in the repository, holds
 * the repository's lock, and removes what it has made there; what a killed process leaves, the next publisher removes.
 *
 * Memory does not depend on the size of files and tables.
 *
 * @throws UsageError for a value that can never work; PublishError, which names what is missing, otherwise
 */
[[nodiscard]] Changes FindChanges(const ChangesOptions& options, const PublishObserver& observer);

/** @param most_files  that are listed; the rest is counted */
void PrintChangesText(const Changes& changes, std::size_t most_files, std::ostream& out);
/** Prints all of the list, one file on each line. */
void PrintChangesJson(const Changes& changes, std::ostream& out);

// Words that several views share.
/** "1 file", "2 files". */
std::string Counted(std::uint64_t count, const std::string& one);
/** A time in UTC as std::put_time() writes it; empty for a time below 0, and for one that no calendar has. */
std::string TimeText(std::int64_t seconds, const char* format = "%Y-%m-%d %H:%M:%S UTC");
/** "5 inserted, 1 deleted"; "none" when all are 0. */
std::string RowText(const RowCounts& rows);
/** The values of a row that a release touches: "name: 'Roma' -> 'Rome'". */
std::string ValuesText(const RowExample& example);
/** What happens to a table: "column x added, 5 inserted". */
std::string TableText(const TableChange& table);
/** The size of a file, or both sizes, and whether it can be executed. */
std::string SizeText(const FileChange& file);

} // namespace tarn::publisher

#endif
