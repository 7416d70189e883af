/**
 * @file
 * Changing a database file by an SQL script.
 */
#ifndef DATAUPDATE_SQL_SCRIPT_H
#define DATAUPDATE_SQL_SCRIPT_H

#include <string>

namespace tarn::dataupdate {

/**
 * Executes a script, one or more whole statements per line, on an SQLite database file in one transaction: whole or,
 * after a failure, not at all. A script is refused what would end that transaction or reach other files: BEGIN, COMMIT,
 * ROLLBACK, ATTACH, DETACH, load_extension(), fts3_tokenizer(), and all pragmas but user_version, application_id,
 * foreign_keys and defer_foreign_keys.
 *
 * An empty script opens the file and leaves it as it is, whatever it holds; a directory cannot be opened.
 *
 * The database is a working copy: nothing is synced, nobody else may have it open, and its "-wal", "-shm" and
 * "-journal" names must be free. Throws UpdateError "Fail apply sql cmd: <why>".
 */
void ExecuteSqlScript(const std::string& database, const std::string& script);

} // namespace tarn::dataupdate

#endif
