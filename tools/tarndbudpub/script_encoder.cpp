#include "script_encoder.h"

#include "dataupdate/file_copy.h"
#include "dataupdate/sql_script.h"
#include "dataupdate/update_error.h"
#include "program.h"
#include "sql_lines.h"
#include "sqlite_content.h"

#include <filesystem>
#include <fstream>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

/** A database file of its own to try things out on, gone with the object. */
class Copy {
public:
	Copy(const std::string& original, std::string path) : path_(std::move(path)) {
		dataupdate::CopyRegularFile(original, path_);
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
		for (const char* suffix : {"-wal", "-shm"}) {
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

void MakeScript(const std::string& encoder, const Copy& before, const Copy& after, const std::string& script,
    const std::string& scratch) {
	const std::string output = scratch + "/sql";
	RunProgram(encoder, {before.Path(), after.Path()}, output, scratch + "/errors");
	std::ifstream statements(output, std::ios::binary);
	std::ofstream lines(script, std::ios::binary);
	const bool kept = WriteStatementPerLine(statements, lines);
	if (!lines.flush()) {
		throw PublishError(script + " could not be written.");
	}
	fs::remove(output);
	if (!kept) {
		throw PublishError("the script cannot be written with one statement on each line");
	}
}

} // namespace

void EncodeScript(
    const std::string& encoder, const ScriptSubject& subject, const std::string& script, const std::string& scratch) {
	if (const auto obstacle = FindScriptObstacle(subject.before, subject.after)) {
		throw PublishError(*obstacle);
	}
	try {
		const Copy before(subject.before, scratch + "/before");
		const Copy after(subject.after, scratch + "/after");
		MakeScript(encoder, before, after, script, scratch);
		for (const Copy* copy : {&before, &after}) {
			std::error_code ignored; // executing says what it finds
			copy->RemoveCompanions(ignored);
		}
		dataupdate::ExecuteSqlScript(before.Path(), script);
		RequireContent(before.Path(), subject.after, "from the published version");
		if (!subject.lineage.empty()) {
			const Copy lineage(subject.lineage, scratch + "/lineage");
			dataupdate::ExecuteSqlScript(lineage.Path(), script);
			RequireContent(lineage.Path(), subject.after, "on devices that came by scripts");
		}
		try {
			dataupdate::ExecuteSqlScript(after.Path(), script);
		} catch (const dataupdate::UpdateError&) {
			return; // rolled back, as good as no change
		}
		RequireContent(after.Path(), subject.after, "when it is executed twice");
	} catch (const dataupdate::UpdateError& error) {
		throw PublishError(error.what());
	}
}

} // namespace tarn::publisher
