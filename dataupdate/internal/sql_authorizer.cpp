#include "dataupdate/internal/sql_authorizer.h"

#include <sqlite3.h>

#include <algorithm>
#include <initializer_list>

namespace tarn::dataupdate {

namespace {

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

} // namespace tarn::dataupdate
