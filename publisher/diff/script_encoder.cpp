#include "publisher/diff/script_encoder.h"

#include "base/sqlite_names.h"
#include "publisher/packages/device.h"
#include "publisher/sqlite/sqlite_content.h"
#include "publisher/sqlite/virtual_tables.h"

#include <filesystem>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

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

/** Executes a script and requires what devices must have then. */
void Try(const Copy& copy, const std::string& script, const std::string& expected, const std::string& where) {
	ExecuteScript(copy.Path(), script);
	RequireContent(copy.Path(), expected, where);
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
	WriteDatabaseScript(subject.before, subject.after, script, scratch, limits);
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
