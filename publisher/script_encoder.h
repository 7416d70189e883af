#ifndef PUBLISHER_SCRIPT_ENCODER_H
#define PUBLISHER_SCRIPT_ENCODER_H

#include <string>

namespace tarn::publisher {

/** The database files that a script is made from and tried out on; none of them is changed. */
struct ScriptSubject {
	std::string before;
	std::string after;
	std::string lineage; // the content of `before` as a device has it that came by scripts; empty when none did
};

/**
 * Writes an SQL script that turns one database's content into another's, and tries it out with the code of devices: on
 * the database before, on one that came by scripts, and on the one after, where it must fail or change nothing.
 *
 * @param encoder  the sqldiff program
 * @param scratch  a directory of this call's own
 * @throws PublishError when no script can be made or it does not reproduce the content
 */
void EncodeScript(
    const std::string& encoder, const ScriptSubject& subject, const std::string& script, const std::string& scratch);

} // namespace tarn::publisher

#endif
