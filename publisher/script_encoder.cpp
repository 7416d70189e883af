#include "publisher/script_encoder.h"

#include "base/sqlite_names.h"
#include "base/text.h"
#include "publisher/device.h"
#include "publisher/program.h"
#include "publisher/sqlite_content.h"
#include "publisher/virtual_tables.h"

#include <array>
#include <filesystem>
#include <fstream>
#include <string_view>

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
		RemoveCompanions(ignored);
	}

	const std::string& Path() const { return path_; }

	/** Removes what readers of a database in WAL mode may leave; nothing has been written to it. */
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

constexpr std::string_view kBreakInText = "'||char(10)||'";

// The words of sqldiff and of the shell, which write them in capitals.
bool IsTransaction(const std::string& statement) {
	return StartsWith(statement, "BEGIN") || StartsWith(statement, "COMMIT") || StartsWith(statement, "END");
}

/** Follows SQL byte by byte. Takes a doubled quote within a text for the end of a text and the beginning of another. */
class Splitter {
public:
	explicit Splitter(std::ostream& lines) : lines_(lines) {}

	bool Take(char byte) {
		if (byte == '\0') {
			return false;
		}
		return quote_ != '\0' ? TakeQuoted(byte) : TakePlain(byte);
	}
	/** Whether all statements were ended. */
	bool Finish() const { return quote_ == '\0' && statement_.empty() && lines_.good(); }

private:
	bool TakeQuoted(char byte) {
		if (byte == '\n') {
			statement_ += kBreakInText;
			return quote_ == '\'';
		}
		statement_ += byte;
		if (byte == quote_) {
			quote_ = '\0';
		}
		return true;
	}

	bool TakePlain(char byte) {
		if (byte == '\n' || byte == '\r' || byte == ' ') {
			if (!statement_.empty()) {
				statement_ += ' ';
			}
			return true;
		}
		const bool is_comment = !statement_.empty() && ((byte == '-' && statement_.back() == '-') ||
		                                                   (byte == '*' && statement_.back() == '/'));
		statement_ += byte;
		if (byte == '\'' || byte == '"' || byte == '`') {
			quote_ = byte;
		} else if (byte == '[') {
			quote_ = ']';
		} else if (byte == ';') {
			EndStatement();
		}
		return !is_comment;
	}

	void EndStatement() {
		if (!IsTransaction(statement_)) {
			lines_ << statement_ << '\n';
		}
		statement_.clear();
	}

	std::ostream& lines_;
	std::string statement_;
	char quote_ = '\0'; // what ends the quotes that are open
};

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
		std::error_code ignored; // what stays makes the execution fail
		copy->RemoveCompanions(ignored);
	}
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

bool WriteStatementPerLine(std::istream& script, std::ostream& lines) {
	constexpr std::size_t kBlock = std::size_t{64} << 10U;
	std::array<char, kBlock> block{};
	Splitter splitter(lines);
	while (script.read(block.data(), block.size()), script.gcount() > 0) {
		for (const char byte : std::string_view(block.data(), static_cast<std::size_t>(script.gcount()))) {
			if (!splitter.Take(byte)) {
				return false;
			}
		}
	}
	return script.eof() && splitter.Finish();
}

} // namespace tarn::publisher
