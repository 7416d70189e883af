#include "publisher/diff/script_encoder.h"

#include "base/sqlite_names.h"
#include "publisher/common/files.h"
#include "publisher/common/publish_error.h"
#include "publisher/diff/file_encoder.h"
#include "publisher/packages/device.h"
#include "publisher/sqlite/change_writer.h"
#include "publisher/sqlite/database_pair.h"
#include "publisher/sqlite/rebuilt_table.h"
#include "publisher/sqlite/sqlite_content.h"
#include "publisher/sqlite/virtual_tables.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

constexpr const char* kSequence = "sqlite_sequence";

/** The statements for one table, in a file of their own, and what must hold before they are executed. */
struct TableScript {
	std::string path;
	std::string guard;
};

/** Makes the script table by table. */
class ScriptMaker {
public:
	ScriptMaker(
	    const std::string& before, const std::string& after, const std::string& scratch, const ScriptLimits& limits)
	    : pair_(before, after), scratch_(scratch), limits_(limits) {}

	void Make(const std::string& script) {
		for (const Table& table : TablesOf(pair_)) {
			if (table.name != kSequence) {
				AddTable(ShapeOf(pair_, table));
			}
		}
		for (const VirtualTable& table : VirtualTablesOf(pair_)) {
			Add(InPlace(ShapeOfVirtual(pair_, table.name, table.IsRTree())));
		}
		if (pair_.tableExists(kSequence)) {
			AddSequence();
		}
		Write(script);
	}

private:
	TableScript Written(
	    const std::string& ending, const TableShape& shape, const std::function<void(ChangeWriter& writer)>& write) {
		TableScript part = {scratch_ + "/table" + std::to_string(parts_.size()) + ending, ""};
		std::ofstream statements(part.path, std::ios::binary);
		ChangeWriter writer(shape, statements);
		write(writer);
		if (!statements.flush()) {
			throw PublishError(part.path + " could not be written.");
		}
		part.guard = writer.Guard();
		return part;
	}

	TableScript InPlace(const TableShape& shape) {
		return Written("", shape, [&](ChangeWriter& writer) { WriteChangesInPlace(pair_, shape, writer); });
	}

	void AddTable(const TableShape& shape) {
		constexpr std::uint64_t kShort = 1024; // nothing is worth a second look at the table
		TableScript script = InPlace(shape);
		if (!shape.row_id.empty() && fs::file_size(script.path) > kShort) {
			RebuiltTable table(pair_, shape);
			if (table.Match(limits_.memory)) {
				const TableScript moved = Written("-moved", shape, [&](ChangeWriter& writer) { table.Write(writer); });
				script = Shorter(script, moved);
			}
		}
		Add(script);
	}

	TableScript Shorter(const TableScript& one, const TableScript& other) const {
		const auto size = CompressedSizeBelow(std::numeric_limits<std::uint64_t>::max(), one.path, limits_.level);
		const bool other_is_shorter = size && CompressedSizeBelow(*size, other.path, limits_.level);
		fs::remove(other_is_shorter ? one.path : other.path);
		return other_is_shorter ? other : one;
	}

	/** The table that SQLite itself changes with others: it gets all its rows again, after everything else. */
	void AddSequence() {
		const TableShape shape = ShapeOf(pair_, {kSequence, false});
		const TableScript changes = InPlace(shape);
		const bool has_changed = fs::file_size(changes.path) > 0;
		fs::remove(changes.path);
		if (!has_changed) {
			return;
		}
		Add(Written("", shape, [&](ChangeWriter& writer) {
			writer.Write(std::string("DELETE FROM ") + kSequence);
			SQLite::Statement rows(
			    pair_, std::string("SELECT rowid, name, seq FROM next.") + kSequence + " ORDER BY rowid");
			while (rows.executeStep()) {
				writer.Insert(RowOf(rows, 0, 1), RowOf(rows, 1, 2));
			}
			writer.Flush();
		}));
	}

	void Add(const TableScript& script) {
		parts_.push_back(script.path);
		if (guard_.empty()) {
			guard_ = script.guard;
		}
	}

	void Write(const std::string& path) const {
		std::ofstream script(path, std::ios::binary);
		if (!guard_.empty()) {
			// Fails by an overflow where the condition does not hold: statements that depend on the rows that they find
			// must not be executed twice.
			script << "SELECT abs(" << guard_ << "+~9223372036854775807);\n";
		}
		for (const std::string& part : parts_) {
			InputFile statements(part);
			for (std::string_view block = statements.Next(); !block.empty(); block = statements.Next()) {
				script << block;
			}
			fs::remove(part);
		}
		if (!script.flush()) {
			throw PublishError(path + " could not be written.");
		}
	}

	DatabasePair pair_;
	std::string scratch_;
	ScriptLimits limits_;
	std::vector<std::string> parts_;
	std::string guard_;
};

/** A copy of a database file to try a script on; removed with the object. */
class Copy {
public:
	Copy(const std::string& original, std::string path) : path_(std::move(path)) {
		CopyFile(original, path_);
		fs::permissions(path_, fs::perms::owner_read | fs::perms::owner_write);
	}
	Copy(const Copy&) = delete;
	Copy& operator=(const Copy&) = delete;
	~Copy() {
		std::error_code ignored; // the directory is removed as a whole
		fs::remove(path_, ignored);
		RemoveCompanions();
	}

	const std::string& Path() const { return path_; }

	/** Removes what readers of a database in WAL mode may leave; nothing has been written to it. */
	void RemoveCompanions() const {
		std::error_code ignored; // what stays makes the execution of a script fail
		for (const char* suffix : {kSqliteLog, kSqliteSharedMemory}) {
			fs::remove(path_ + suffix, ignored);
		}
	}

private:
	std::string path_;
};

void RequireContent(const std::string& database, const std::string& expected, const std::string& where) {
	if (const auto difference = FindContentDifference(database, expected)) {
		throw PublishError("the script does not reproduce the content " + where + ": " + *difference);
	}
}

/**
 * Executes a script and requires what devices must have then. Rows alone would pass for the content where an index of
 * the database before is damaged, which no script repairs.
 */
void Try(const Copy& copy, const std::string& script, const std::string& expected, const std::string& where) {
	ExecuteScript(copy.Path(), script);
	RequireContent(copy.Path(), expected, where);
	RequireSoundDatabase(copy.Path());
	RequireSoundIndexes(copy.Path());
}

} // namespace

void EncodeScript(
    const ScriptSubject& subject, const std::string& script, const std::string& scratch, const ScriptLimits& limits) {
	if (const auto obstacle = FindScriptObstacle(subject.before, subject.after)) {
		throw PublishError(*obstacle);
	}
	const Copy before(subject.before, scratch + "/before");
	const Copy after(subject.after, scratch + "/after");
	RequireSoundIndexes(after.Path());
	after.RemoveCompanions();
	ScriptMaker(subject.before, subject.after, scratch, limits).Make(script);
	Try(before, script, subject.after, "from the published version");
	if (!subject.lineage.empty()) {
		const Copy lineage(subject.lineage, scratch + "/lineage");
		Try(lineage, script, subject.after, "on devices that have executed scripts");
	}
	try {
		ExecuteScript(after.Path(), script);
	} catch (const DeviceError&) {
		return; // rolled back, so that nothing has changed
	}
	RequireContent(after.Path(), subject.after, "when it is executed twice");
}

} // namespace tarn::publisher
