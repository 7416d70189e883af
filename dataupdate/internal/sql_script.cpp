#include "dataupdate/internal/sql_script.h"

#include "base/handle.h"
#include "base/mutex.h"
#include "base/sqlite_names.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/update_error.h"
#include "dataupdate/utils.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <boost/filesystem.hpp>
#include <sqlite3.h>

#include <algorithm>
#include <fstream>
#include <initializer_list>
#include <stdexcept>

namespace tarn::dataupdate {

namespace {

Mutex memory_mutex;
int memory_users TARN_GUARDED_BY(memory_mutex) = 0;
std::int64_t memory_before TARN_GUARDED_BY(memory_mutex) = 0; // in use by SQLite before the first user
std::int64_t former_hard TARN_GUARDED_BY(memory_mutex) = 0;   // 0 means none
std::int64_t former_soft TARN_GUARDED_BY(memory_mutex) = 0;

void SetMemoryLimit() TARN_REQUIRES(memory_mutex) {
	const std::int64_t limit = memory_before + memory_users * kMaxScriptMemoryBytes;
	sqlite3_hard_heap_limit64(former_hard > 0 ? std::min(former_hard, limit) : limit);
}

bool IsOneOf(const char* name, std::initializer_list<const char*> names) {
	return name != nullptr && std::any_of(names.begin(), names.end(),
	                              [name](const char* other) { return sqlite3_stricmp(name, other) == 0; });
}

bool IsHarmlessPragma(const char* name, const char* value) {
	// Others take away the journal that a rollback needs, move files, or hold for the whole process.
	if (IsOneOf(name, {"user_version", "application_id", "foreign_keys", "defer_foreign_keys"})) {
		return true;
	}
	// A value only says what these are to report of.
	if (IsOneOf(name, {"collation_list", "compile_options", "data_version", "database_list", "foreign_key_check",
	                      "foreign_key_list", "freelist_count", "function_list", "index_info", "index_list",
	                      "index_xinfo", "integrity_check", "module_list", "page_count", "pragma_list", "quick_check",
	                      "table_info", "table_list", "table_xinfo"})) {
		return true;
	}
	return value == nullptr &&
	       IsOneOf(name, {"auto_vacuum", "cache_size", "encoding", "journal_mode", "max_page_count", "page_size",
	                         "recursive_triggers", "schema_version", "secure_delete", "synchronous", "temp_store"});
}

void EndRestriction(sqlite3* connection) {
	sqlite3_set_authorizer(connection, nullptr, nullptr);
}

class ScriptLines {
public:
	explicit ScriptLines(const std::string& path) : path_(path), file_(path, std::ios::binary) {}

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

/** Keeps the lines within their transaction and their file. */
void ExecuteLines(SQLite::Database& database, ScriptLines& lines) {
	database.check(sqlite3_set_authorizer(database.getHandle(), AuthorizeScript, nullptr));
	const Handle<sqlite3, EndRestriction> restriction(database.getHandle());
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

/** The memory that scripts may take by now; a host's own limit may be lower. */
std::int64_t FreeMemory() {
	return std::min<std::int64_t>(kMaxScriptMemoryBytes, sqlite3_hard_heap_limit64(-1) - sqlite3_memory_used());
}

/**
 * Originals of changed pages go to memory where all pages of the file fit into a quarter of it, so that a page costs
 * one write and not four; whoever is killed leaves a working copy that nobody uses. In WAL mode the file says so
 * itself.
 */
void ChooseJournal(SQLite::Database& file, std::int64_t file_bytes) {
	if (file_bytes <= FreeMemory() / 4 && file.execAndGet("PRAGMA journal_mode").getString() != "wal") {
		file.execAndGet("PRAGMA journal_mode = MEMORY");
	}
}

/** Only before the transaction. */
void Prepare(SQLite::Database& file) {
	const std::int64_t page_bytes = file.execAndGet("PRAGMA page_size").getInt64();
	const std::int64_t pages = file.execAndGet("PRAGMA page_count").getInt64();
	file.exec("PRAGMA synchronous = OFF");
	file.exec("PRAGMA max_page_count = " + std::to_string(pages + kMaxScriptGrowthBytes / page_bytes));
	// Whatever the file asks for: a page that leaves the cache before the commit may be written several times. Most of
	// the memory is for indexes that are made, and for temporary tables.
	file.exec("PRAGMA cache_size = -" + std::to_string(std::max<std::int64_t>(FreeMemory() / 8 / 1024, 1000)));
	// Temporary tables are kept in memory, which is limited, so that they do not fill /var/tmp.
	file.exec("PRAGMA temp_store = MEMORY");
	ChooseJournal(file, pages * page_bytes);
}

/**
 * Ends statements of a connection when time is up or an interruption is asked for, for as long as the object lives.
 * Nothing else may use the connection's progress handler.
 */
class ScriptWatch {
public:
	ScriptWatch(sqlite3* connection, std::chrono::seconds time) : connection_(connection), end_(Clock::now() + time) {
		constexpr int kInstructions = 100; // few, because one may work on a text of the greatest length
		sqlite3_progress_handler(connection_, kInstructions, IsToBeEnded, this);
	}
	~ScriptWatch() { sqlite3_progress_handler(connection_, 0, nullptr, nullptr); }
	ScriptWatch(const ScriptWatch&) = delete;
	ScriptWatch& operator=(const ScriptWatch&) = delete;

	/** Whether time is up; SQLite only says "interrupted". */
	bool IsLate() const { return Clock::now() >= end_; }

private:
	using Clock = std::chrono::steady_clock;

	static int IsToBeEnded(void* watch) {
		return IsInterrupted() || static_cast<const ScriptWatch*>(watch)->IsLate() ? 1 : 0;
	}

	sqlite3* connection_;
	Clock::time_point end_;
};

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

/** Sets what SQLite limits for each connection, and keeps it from leaving the database's own file. */
void LimitConnection(sqlite3* connection) {
	// A single instruction is not interrupted, and some take the product of two lengths.
	constexpr int kPatternBytes = 1000;
	constexpr int kInstructions = 1'000'000;
	sqlite3_limit(connection, SQLITE_LIMIT_LENGTH, kMaxScriptValueBytes);
	sqlite3_limit(connection, SQLITE_LIMIT_SQL_LENGTH, static_cast<int>(kMaxScriptLineBytes) + 1);
	sqlite3_limit(connection, SQLITE_LIMIT_VDBE_OP, kInstructions);
	sqlite3_limit(connection, SQLITE_LIMIT_LIKE_PATTERN_LENGTH, kPatternBytes);
	sqlite3_limit(connection, SQLITE_LIMIT_ATTACHED, 0);
	sqlite3_limit(connection, SQLITE_LIMIT_WORKER_THREADS, 0);
	// Neither the schema nor a script writes past virtual tables into what belongs to them.
	sqlite3_db_config(connection, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
	sqlite3_db_config(connection, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
	sqlite3_db_config(connection, SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0, nullptr);
	sqlite3_db_config(connection, SQLITE_DBCONFIG_ENABLE_FTS3_TOKENIZER, 0, nullptr);
}

} // namespace

ScriptMemoryLimit::ScriptMemoryLimit() {
	const MutexLock guard(memory_mutex);
	if (++memory_users == 1) {
		memory_before = sqlite3_memory_used();
		former_hard = sqlite3_hard_heap_limit64(-1);
		former_soft = sqlite3_soft_heap_limit64(-1);
	}
	SetMemoryLimit();
}

ScriptMemoryLimit::~ScriptMemoryLimit() {
	const MutexLock guard(memory_mutex);
	if (--memory_users > 0) {
		SetMemoryLimit();
		return;
	}
	sqlite3_hard_heap_limit64(former_hard);
	sqlite3_soft_heap_limit64(former_soft); // which follows a hard one that is lower
}

int AuthorizeScript(void* /*context*/, int action, const char* first, const char* second, const char* /*database*/,
    const char* /*trigger*/) {
	switch (action) {
	case SQLITE_TRANSACTION:
	case SQLITE_ATTACH:
	case SQLITE_DETACH:
		return SQLITE_DENY;
	case SQLITE_FUNCTION:
		return IsOneOf(second, {"load_extension", "fts3_tokenizer"}) ? SQLITE_DENY : SQLITE_OK;
	case SQLITE_CREATE_VTABLE:
		// Others read files or memory, or write past what SQLite checks.
		return IsOneOf(second, {"fts3", "fts4", "fts5", "rtree", "rtree_i32"}) ? SQLITE_OK : SQLITE_DENY;
	case SQLITE_PRAGMA:
		return IsHarmlessPragma(first, second) ? SQLITE_OK : SQLITE_DENY;
	default:
		return SQLITE_OK;
	}
}

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
