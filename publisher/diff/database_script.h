/** @file A script that turns one database into another with the same schema. */
#ifndef PUBLISHER_DIFF_DATABASE_SCRIPT_H
#define PUBLISHER_DIFF_DATABASE_SCRIPT_H

#include <cstdint>
#include <string>

namespace tarn::publisher {

/** What scripts are chosen by, and what making them may take. */
struct ScriptLimits {
	int level = 0;            // of the compression by which scripts are compared
	std::uint64_t memory = 0; // bytes for the rows of a table, more or less
};

/**
 * Writes statements, each on one line, for the rows of all tables. Where rows of a table have got other row ids, takes
 * the shorter of two ways: to change rows by their row ids, or to move the rows that stay.
 *
 * The script fails on the database after, or changes nothing there.
 *
 * @param scratch  a directory that no other call uses
 * @throws PublishError, or SQLite's exception
 */
void WriteDatabaseScript(const std::string& before, const std::string& after, const std::string& script,
    const std::string& scratch, const ScriptLimits& limits);

} // namespace tarn::publisher

#endif
