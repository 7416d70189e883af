/**
 * @file
 * What an SQL script may do to the database that it changes.
 */
#ifndef DATAUPDATE_INTERNAL_SQL_AUTHORIZER_H
#define DATAUPDATE_INTERNAL_SQL_AUTHORIZER_H

namespace tarn::dataupdate {

/**
 * SQLite's question whether a statement of a script may be prepared. Refused is what would end the transaction, reach
 * other files, or hold beyond the script: transactions, ATTACH, DETACH, load_extension(), fts3_tokenizer(), virtual
 * tables of other modules than FTS3, FTS4, FTS5 and R*Tree, and pragmas that set anything but user_version,
 * application_id, foreign_keys and defer_foreign_keys. FTS and R*Tree themselves ask pragmas.
 */
int AuthorizeScript(
    void* context, int action, const char* first, const char* second, const char* database, const char* trigger);

} // namespace tarn::dataupdate

#endif
