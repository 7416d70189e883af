/** @file Changing a database file by an SQL script, and what a script may take. */
#ifndef DATAUPDATE_INTERNAL_SQL_SCRIPT_H
#define DATAUPDATE_INTERNAL_SQL_SCRIPT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace tarn::dataupdate {

/** Bytes of a text, a blob or a row. Some functions take time by the square of it, and none of them is interrupted. */
constexpr int kMaxScriptValueBytes = 4 << 20;
/** Bytes of a line, which holds whole statements. The publisher's encoder writes two digits for each byte of a blob. */
constexpr std::size_t kMaxScriptLineBytes = 2 * static_cast<std::size_t>(kMaxScriptValueBytes) + (64U << 10U);
/** Memory that SQLite may take for a script, and for whatever other SQLite databases the process opens meanwhile. */
constexpr std::int64_t kMaxScriptMemoryBytes = std::int64_t{256} << 20;
/** How much larger a script may make a database file. */
constexpr std::int64_t kMaxScriptGrowthBytes = std::int64_t{1} << 30;
/** How long a script may take, the commit included. */
constexpr std::chrono::seconds kMaxScriptTime{600};

/**
 * Limits the memory of SQLite for as long as the object lives. SQLite knows one limit for the process: a lower one that
 * the host has set stays, and the former ones are back when the last object is gone. Each object allows
 * kMaxScriptMemoryBytes more than what was in use before the first.
 */
class ScriptMemoryLimit {
public:
	ScriptMemoryLimit();
	~ScriptMemoryLimit();
	ScriptMemoryLimit(const ScriptMemoryLimit&) = delete;
	ScriptMemoryLimit& operator=(const ScriptMemoryLimit&) = delete;
};

/**
 * SQLite's question whether a statement of a script may be prepared. Refused is what would end the transaction, reach
 * other files, or hold beyond the script: transactions, ATTACH, DETACH, load_extension(), fts3_tokenizer(), virtual
 * tables of other modules than FTS3, FTS4, FTS5 and R*Tree, and pragmas that set anything but user_version,
 * application_id, foreign_keys and defer_foreign_keys. FTS and R*Tree themselves ask pragmas.
 */
int AuthorizeScript(
    void* context, int action, const char* first, const char* second, const char* database, const char* trigger);

/**
 * Executes a script, one or more whole statements per line, on an SQLite database file in one transaction: whole or,
 * after a failure, not at all. AuthorizeScript() says what a script is refused, and the constants above what it may
 * take: the length of lines and values, memory, growth of the file, and time. SQLite's memory is limited for the whole
 * process while a script runs.
 *
 * An empty script opens the file and leaves it as it is, whatever it holds; a directory cannot be opened.
 *
 * The database is a working copy: nothing is synced, nobody else may have it open, and its "-wal", "-shm" and
 * "-journal" names must be free. Throws UpdateError "Fail apply sql cmd: <why>".
 */
void ExecuteSqlScript(
    const std::string& database, const std::string& script, std::chrono::seconds time = kMaxScriptTime);

} // namespace tarn::dataupdate

#endif
