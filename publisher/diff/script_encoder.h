/** @file Changes of a database as an SQL script. */
#ifndef PUBLISHER_DIFF_SCRIPT_ENCODER_H
#define PUBLISHER_DIFF_SCRIPT_ENCODER_H

#include <cstdint>
#include <string>

namespace tarn::publisher {

/** What scripts are chosen by, and what making them may take. */
struct ScriptLimits {
	int level = 0;            // of the compression by which scripts are compared
	std::uint64_t memory = 0; // bytes for the rows of a table, more or less
};

/** The database files that a script is made from and tried out on; none of them is changed. */
struct ScriptSubject {
	std::string before;
	std::string after;
	std::string lineage; // `before` as a device has it that executed scripts; empty when there is none
};

/**
 * Writes an SQL script that turns one database's content into another's of the same schema, each statement on one line,
 * for the rows of all tables. Where rows of a table have got other row ids, takes the shorter of two ways: to change
 * rows by their row ids, or to move the rows that stay.
 *
 * Executes the script as devices do: on the database before, on the lineage, and on the database after, where the
 * script must fail or change nothing.
 *
 * @param scratch  a directory that no other call uses
 * @throws PublishError when no script can be made or it does not reproduce the content, or SQLite's exception
 */
void EncodeScript(
    const ScriptSubject& subject, const std::string& script, const std::string& scratch, const ScriptLimits& limits);

} // namespace tarn::publisher

#endif
