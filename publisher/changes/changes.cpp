#include "publisher/changes/changes.h"

#include "base/text.h"
#include "publisher/changes/version_tree.h"
#include "publisher/common/files.h"
#include "publisher/common/publish_error.h"
#include "publisher/packages/tree.h"
#include "publisher/repository/document_sentences.h"
#include "publisher/repository/option_checks.h"
#include "publisher/repository/repository.h"
#include "publisher/sqlite/shown_value.h"
#include "publisher/sqlite/sql_text.h"
#include "publisher/sqlite/sqlite_content.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <set>
#include <utility>

namespace tarn::publisher {

namespace {

std::optional<FileState> StateOf(const std::optional<TreeFile>& file) {
	return file ? std::optional(FileState{file->size, file->executable}) : std::nullopt;
}

/** Whether SQLite fails for a reason that lies not in the file. */
bool IsOfMachine(const SQLite::Exception& error) {
	constexpr std::array kCodes = {SQLITE_FULL, SQLITE_IOERR, SQLITE_NOMEM, SQLITE_CANTOPEN};
	return std::find(kCodes.begin(), kCodes.end(), error.getErrorCode()) != kCodes.end();
}

/** Where SQLite puts what it sorts, for its lifetime: there is room beside the trees, elsewhere perhaps not. */
class TemporaryFiles {
public:
	explicit TemporaryFiles(const std::string& directory) { Set(directory); }
	TemporaryFiles(const TemporaryFiles&) = delete;
	TemporaryFiles& operator=(const TemporaryFiles&) = delete;
	~TemporaryFiles() { Set(""); }

private:
	static void Set(const std::string& directory) {
		SQLite::Database(":memory:", SQLite::OPEN_READWRITE)
		    .exec("PRAGMA temp_store_directory=" + QuotedName(directory)); // for the whole process
	}
};

/** The steps of FindChanges(). */
class ChangeFinder {
public:
	ChangeFinder(const ChangesOptions& options, const PublishObserver& observer)
	    : options_(options),
	      observer_(observer),
	      reader_(options.keys),
	      repository_(options.repository, observer.waiting) {}

	Changes Run() {
		RemoveLeftovers(options_.repository);
		ChooseVersions();
		const WorkDirectory work(options_.repository);
		const TemporaryFiles sorted_here(work.Path());
		MakeTrees(work);
		before_ = ListTree(work / "from");
		after_ = ListTree(work / "to");
		names_ = NamesOf(before_);
		names_.merge(NamesOf(after_));
		observer_.step("comparing files", 0, 1);
		const std::vector<TreeChange> changes = CompareTrees(before_, after_);
		for (std::size_t i = 0; i < changes.size(); ++i) {
			observer_.step("comparing", i, changes.size());
			Add(changes[i]);
		}
		Sum();
		return std::move(changes_);
	}

private:
	void ChooseVersions() {
		changes_.id = options_.id;
		const int to = options_.to ? *options_.to : NewestVersion();
		const int from = options_.from ? *options_.from : VersionBefore(to);
		if (from == to) {
			throw UsageError("FROM and TO are both version " + std::to_string(to) + ".");
		}
		changes_.from.version = from;
		changes_.to.version = to;
	}

	int NewestVersion() const {
		const std::optional<Entry> entry = repository_.ReadEntry(options_.db_version, options_.id);
		if (!entry) {
			throw PublishError(
			    WhyNotNamed(repository_, options_.db_version, options_.id) + ": give both versions, or --channel.");
		}
		return entry->data_version;
	}

	/** The highest version below another that packages tell of. */
	int VersionBefore(int version) const {
		int before = -1;
		for (const PackageFile& file : repository_.Packages(options_.id)) {
			for (const int known : {file.data_version, file.is_diff ? file.data_version - 1 : file.data_version}) {
				before = known < version ? std::max(before, known) : before;
			}
		}
		if (before < 0) {
			throw PublishError("There is no version of " + options_.id + " below " + std::to_string(version) + " in " +
			                   options_.repository + ".");
		}
		return before;
	}

	void MakeTrees(const WorkDirectory& work) {
		const VersionSource source = {repository_, reader_, options_.id};
		observer_.step("unpacking", 0, 2);
		VersionTree from = MakeVersionTree(source, changes_.from.version, work, "from", "");
		observer_.step("unpacking", 1, 2);
		VersionTree to = MakeVersionTree(source, changes_.to.version, work, "to", "from");
		changes_.from = from.version;
		changes_.to = to.version;
		scripted_ = std::move(from.scripted);
		scripted_.merge(to.scripted);
	}

	void Add(const TreeChange& difference) {
		FileChange file = {difference.name, StateOf(difference.before), StateOf(difference.after), std::nullopt, {}};
		if (difference.before && difference.after) {
			CompareAsDatabases(difference, file);
			// Scripts leave other bytes, which no release has changed.
			const bool is_same = scripted_.count(file.name) > 0 && file.database && file.database->IsEmpty() &&
			                     file.before->executable == file.after->executable;
			if (is_same) {
				return;
			}
		}
		Count(file);
		Keep(std::move(file));
	}

	void CompareAsDatabases(const TreeChange& difference, FileChange& file) const {
		const bool was_database = IsSqliteFile(difference.before->source);
		const bool is_database = IsSqliteFile(difference.after->source);
		if (!was_database && !is_database) {
			return;
		}
		if (was_database != is_database) {
			file.note = "it is an SQLite database in one version only";
		} else if (HasCompanion(file.name, names_)) { // The file alone is not what programs read.
			file.note = "SQLite's journal lies beside it";
		} else {
			try {
				file.database =
				    CompareDatabases(difference.before->source, difference.after->source, options_.examples);
			} catch (const SQLite::Exception& error) {
				if (IsOfMachine(error)) {
					throw PublishError("\"" + Printable(file.name) + "\" cannot be compared: " + error.what() + ".");
				}
				file.note = ShownText(error.what());
			}
		}
	}

	void Count(const FileChange& file) {
		ChangeTotals& totals = changes_.totals;
		const ChangeKind kind = file.Kind();
		++(kind == ChangeKind::kAdded ? totals.added : kind == ChangeKind::kRemoved ? totals.removed : totals.changed);
		if (!file.database) {
			return;
		}
		++totals.databases;
		for (const TableChange& table : file.database->tables) {
			totals.rows += table.rows;
			totals.tables_not_compared += table.obstacle.empty() ? 0U : 1U;
		}
	}

	/** Lists a file as far as there is room, so that no tree makes the list larger than memory. */
	void Keep(FileChange file) {
		std::size_t size = 1 + (file.database ? file.database->Size() : 0);
		if (listed_ + size > options_.most_listed) {
			changes_.is_truncated = true;
			file.database.reset();
			size = 1;
		}
		if (listed_ + size <= options_.most_listed) {
			listed_ += size;
			changes_.files.push_back(std::move(file));
		}
	}

	void Sum() {
		ChangeTotals& totals = changes_.totals;
		totals.unchanged = before_.files.size() - totals.removed - totals.changed;
		totals.size_before = before_.total_size;
		totals.size_after = after_.total_size;
	}

	const ChangesOptions& options_;
	const PublishObserver& observer_;
	PackageReader reader_;
	Repository repository_;
	Tree before_;
	Tree after_;
	std::set<std::string> names_;
	std::set<std::string> scripted_;
	std::size_t listed_ = 0;
	Changes changes_;
};

} // namespace

Changes FindChanges(const ChangesOptions& options, const PublishObserver& observer) {
	CheckWord("ID", options.id);
	CheckWord("--db-version", options.db_version);
	CheckRange<std::size_t>("--examples", options.examples, 0, kMostExamples);
	RequireRepository(options.repository);
	return ChangeFinder(options, observer).Run();
}

} // namespace tarn::publisher
