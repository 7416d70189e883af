#include "publisher/script_encoder.h"

#include "base/sqlite_names.h"
#include "publisher/device.h"
#include "publisher/program.h"
#include "publisher/rtree_script.h"
#include "publisher/sql_lines.h"
#include "publisher/sqlite_content.h"
#include "publisher/virtual_tables.h"

#include <filesystem>
#include <fstream>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

/** A database file of its own to try things out on, gone with the object. */
class Copy {
public:
	Copy(const std::string& original, std::string path) : path_(std::move(path)) {
		CopyFile(original, path_);
		fs::permissions(path_, fs::perms::owner_read | fs::perms::owner_write);
	}
	Copy(const Copy&) = delete;
	Copy& operator=(const Copy&) = delete;
	~Copy() {
		std::error_code ignored; // the directory goes as a whole
		fs::remove(path_, ignored);
		RemoveCompanions(ignored);
	}

	const std::string& Path() const { return path_; }

	/** Readers of a database in WAL mode may leave these behind; nothing has been written to them. */
	void RemoveCompanions(std::error_code& error) const {
		for (const char* suffix : {kSqliteLog, kSqliteSharedMemory}) {
			fs::remove(path_ + suffix, error);
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

/** Executes a script and requires what devices must have then. */
void Try(const Copy& copy, const std::string& script, const std::string& expected, const std::string& where) {
	ExecuteScript(copy.Path(), script);
	RequireContent(copy.Path(), expected, where);
	RequireSoundIndexes(copy.Path());
}

void WriteLines(std::istream& statements, std::ostream& lines) {
	if (!WriteStatementPerLine(statements, lines)) {
		throw PublishError("the script cannot be written with one statement on each line");
	}
}

void RunEncoder(const std::string& encoder, const std::string& before, const std::string& after,
    const std::string& scratch, std::ostream& lines) {
	const std::string output = scratch + "/sql";
	RunProgram(encoder, {"--vtab", before, after}, output, scratch + "/errors");
	std::ifstream statements(output, std::ios::binary);
	WriteLines(statements, lines);
	fs::remove(output);
}

/** The encoder gets databases without R*Trees, whose numbers it would round. */
void WriteScriptWithRTrees(const std::string& encoder, const Copy& before, const Copy& after,
    const std::string& scratch, std::ostream& lines) {
	const Copy plain_before(before.Path(), scratch + "/before-plain");
	const Copy plain_after(after.Path(), scratch + "/after-plain");
	DropRTrees(plain_before.Path());
	DropRTrees(plain_after.Path());
	RunEncoder(encoder, plain_before.Path(), plain_after.Path(), scratch, lines);
	const std::string output = scratch + "/rtrees";
	std::fstream changes(output, std::ios::binary | std::ios::in | std::ios::out | std::ios::trunc);
	WriteRTreeChanges(before.Path(), after.Path(), changes);
	changes.seekg(0);
	WriteLines(changes, lines);
	fs::remove(output);
}

void MakeScript(const std::string& encoder, const Copy& before, const Copy& after, const std::string& script,
    const std::string& scratch) {
	std::ofstream lines(script, std::ios::binary);
	if (HasRTrees(after.Path())) {
		WriteScriptWithRTrees(encoder, before, after, scratch, lines);
	} else {
		RunEncoder(encoder, before.Path(), after.Path(), scratch, lines);
	}
	if (!lines.flush()) {
		throw PublishError(script + " could not be written.");
	}
}

} // namespace

void EncodeScript(
    const std::string& encoder, const ScriptSubject& subject, const std::string& script, const std::string& scratch) {
	if (const auto obstacle = FindScriptObstacle(subject.before, subject.after)) {
		throw PublishError(*obstacle);
	}
	const Copy before(subject.before, scratch + "/before");
	const Copy after(subject.after, scratch + "/after");
	RequireSoundIndexes(after.Path());
	MakeScript(encoder, before, after, script, scratch);
	for (const Copy* copy : {&before, &after}) {
		std::error_code ignored; // executing says what it finds
		copy->RemoveCompanions(ignored);
	}
	Try(before, script, subject.after, "from the published version");
	if (!subject.lineage.empty()) {
		const Copy lineage(subject.lineage, scratch + "/lineage");
		Try(lineage, script, subject.after, "on devices that came by scripts");
	}
	try {
		ExecuteScript(after.Path(), script);
	} catch (const DeviceError&) {
		return; // rolled back, as good as no change
	}
	RequireContent(after.Path(), subject.after, "when it is executed twice");
}

} // namespace tarn::publisher
