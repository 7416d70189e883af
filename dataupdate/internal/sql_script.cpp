#include "dataupdate/internal/sql_script.h"

#include "base/sqlite_names.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/sql_limits.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <boost/filesystem.hpp>
#include <sqlite3.h>

#include <cstdint>
#include <fstream>
#include <stdexcept>

namespace tarn::dataupdate {

namespace {

/** Keeps a script within its transaction and its file, for as long as the object lives. */
class Restriction {
public:
	explicit Restriction(SQLite::Database& database) : database_(database) {
		database_.check(sqlite3_set_authorizer(database_.getHandle(), AuthorizeScript, nullptr));
	}
	~Restriction() { sqlite3_set_authorizer(database_.getHandle(), nullptr, nullptr); }
	Restriction(const Restriction&) = delete;
	Restriction& operator=(const Restriction&) = delete;

private:
	SQLite::Database& database_;
};

class ScriptLines {
public:
	explicit ScriptLines(const std::string& path) : path_(path), file_(path, std::ios::binary) {}

	/** Takes the next line; returns false behind the last. */
	bool Next(std::string& line) {
		line.clear();
		int byte = Take();
		if (byte == kEnd) {
			return false;
		}
		for (; byte != kEnd && byte != '\n'; byte = Take()) {
			// SQLite would take the line for finished there.
			if (byte == '\0') {
				throw std::runtime_error("zero byte in " + path_);
			}
			if (line.size() == kMaxScriptLineBytes) {
				throw std::runtime_error(
				    "line of more than " + std::to_string(kMaxScriptLineBytes) + " bytes in " + path_);
			}
			line += static_cast<char>(byte);
		}
		return true;
	}

private:
	static constexpr int kEnd = std::filebuf::traits_type::eof();

	/** From the buffer, since a stream takes ten times as long for each byte. */
	int Take() {
		try {
			if (file_.is_open()) {
				return file_.rdbuf()->sbumpc();
			}
		} catch (const std::ios_base::failure&) { // NOLINT(bugprone-empty-catch): says no more than the next line
		}
		throw std::runtime_error("unable to read " + path_);
	}

	const std::string& path_;
	std::ifstream file_;
};

void ExecuteLines(SQLite::Database& database, ScriptLines& lines) {
	const Restriction restriction(database);
	std::string line;
	while (lines.Next(line)) {
		InterruptionPoint();
		database.exec(line);
	}
}

/** A file under one of these names is part of the database for SQLite, whoever made it. */
void CheckStandsAlone(const std::string& database) {
	for (const char* suffix : kSqliteCompanions) {
		if (boost::filesystem::exists(boost::filesystem::symlink_status(database + suffix))) {
			throw std::runtime_error("unexpected file " + database + suffix);
		}
	}
}

/** Only before the transaction. */
void Prepare(SQLite::Database& file) {
	const std::int64_t page_bytes = file.execAndGet("PRAGMA page_size").getInt64();
	const std::int64_t pages = file.execAndGet("PRAGMA page_count").getInt64() + kMaxScriptGrowthBytes / page_bytes;
	file.exec("PRAGMA synchronous = OFF");
	file.exec("PRAGMA max_page_count = " + std::to_string(pages));
	file.exec("PRAGMA cache_size = -8000"); // whatever the file asks for
	// Temporary tables are kept in memory, which is limited, so that they do not fill /var/tmp.
	file.exec("PRAGMA temp_store = MEMORY");
}

/** Says of what SQLite has no words for why it ended a script. */
[[noreturn]] void ThrowReason(const SQLite::Exception& error, bool is_late, std::chrono::seconds time) {
	if (is_late && error.getErrorCode() == SQLITE_INTERRUPT) {
		throw std::runtime_error("not finished after " + std::to_string(time.count()) + " seconds");
	}
	if (error.getErrorCode() == SQLITE_NOMEM) {
		throw std::runtime_error("more than " + std::to_string(kMaxScriptMemoryBytes) + " bytes of memory needed");
	}
	throw error;
}

void ChangeDatabase(SQLite::Database& file, const std::string& script, bool is_empty, std::chrono::seconds time) {
	const ScriptWatch watch(file.getHandle(), time);
	try {
		if (!is_empty) {
			Prepare(file);
		}
		SQLite::Transaction transaction(file);
		ScriptLines lines(script);
		ExecuteLines(file, lines);
		transaction.commit();
	} catch (const SQLite::Exception& error) {
		ThrowReason(error, watch.IsLate(), time);
	}
}

/** Then no byte of the database is looked at, so that any file will do. */
bool IsEmpty(const std::string& script) {
	boost::system::error_code error;
	return boost::filesystem::file_size(script, error) == 0 && !error;
}

} // namespace

void ExecuteSqlScript(const std::string& database, const std::string& script, std::chrono::seconds time) {
	try {
		const bool is_empty = IsEmpty(script);
		if (!is_empty) {
			CheckStandsAlone(database);
		}
		{
			const ScriptMemoryLimit memory;
			SQLite::Database file(database, SQLite::OPEN_READWRITE, 0);
			LimitConnection(file.getHandle());
			ChangeDatabase(file, script, is_empty, time);
		}
		// In WAL mode the content reaches the file only when it is closed, and SQLite does not report a failure then.
		if (!is_empty) {
			CheckStandsAlone(database);
		}
	} catch (const std::exception& error) {
		throw UpdateError((NoexceptFormat("Fail apply sql cmd: %s") % error.what()).str());
	}
}

} // namespace tarn::dataupdate
