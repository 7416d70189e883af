#include "dataupdate/internal/sql_limits.h"

#include "base/mutex.h"
#include "dataupdate/internal/activity.h"

#include <sqlite3.h>

#include <algorithm>
#include <initializer_list>

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

ScriptWatch::ScriptWatch(sqlite3* connection, std::chrono::seconds time)
    : connection_(connection), end_(std::chrono::steady_clock::now() + time) {
	constexpr int kInstructions = 100; // few, because one may work on a text of the greatest length
	sqlite3_progress_handler(connection_, kInstructions, IsToBeEnded, this);
}

ScriptWatch::~ScriptWatch() {
	sqlite3_progress_handler(connection_, 0, nullptr, nullptr);
}

bool ScriptWatch::IsLate() const {
	return std::chrono::steady_clock::now() >= end_;
}

int ScriptWatch::IsToBeEnded(void* watch) {
	return IsInterrupted() || static_cast<const ScriptWatch*>(watch)->IsLate() ? 1 : 0;
}

} // namespace tarn::dataupdate
