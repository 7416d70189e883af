/** @file Changes of a database as an SQL script. */
#ifndef PUBLISHER_DIFF_SCRIPT_ENCODER_H
#define PUBLISHER_DIFF_SCRIPT_ENCODER_H

#include "publisher/diff/database_script.h"

#include <string>

namespace tarn::publisher {

/** The database files that a script is made from and tried out on; none of them is changed. */
struct ScriptSubject {
	std::string before;
	std::string after;
	std::string lineage; // `before` as a device has it that executed scripts; empty when there is none
};

/**
 * Writes an SQL script that turns one database's content into another's, and executes it as devices do: on the database
 * before, on the lineage, and on the database after, where the script must fail or change nothing.
 *
 * @param scratch  a directory that no other call uses
 * @throws PublishError when no script can be made or it does not reproduce the content
 */
void EncodeScript(
    const ScriptSubject& subject, const std::string& script, const std::string& scratch, const ScriptLimits& limits);

} // namespace tarn::publisher

#endif
