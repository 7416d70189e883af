/** @file Changing a database file by an SQL script. */
#ifndef DATAUPDATE_INTERNAL_SQL_SCRIPT_H
#define DATAUPDATE_INTERNAL_SQL_SCRIPT_H

#include "dataupdate/internal/sql_limits.h"

#include <chrono>
#include <string>

namespace tarn::dataupdate {

/**
 * Executes a script, one or more whole statements per line, on an SQLite database file in one transaction: whole or,
 * after a failure, not at all. AuthorizeScript() says what a script is refused, and sql_limits.h what it may take: the
 * length of lines and values, memory, growth of the file, and time. SQLite's memory is limited for the whole process
 * while a script runs.
 *
 * An empty script opens the file and leaves it as it is, whatever it holds; a directory cannot be opened.
 *
 * The database is a working copy: nothing is synced, nobody else may have it open, and its "-wal", "-shm" and
 * "-journal" names must be free. Throws UpdateError "Fail apply sql cmd: <why>".
 *
 * @param time  how long the script may take
 */
void ExecuteSqlScript(
    const std::string& database, const std::string& script, std::chrono::seconds time = kMaxScriptTime);

} // namespace tarn::dataupdate

#endif
