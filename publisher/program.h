#ifndef PUBLISHER_PROGRAM_H
#define PUBLISHER_PROGRAM_H

#include "publisher/publish_error.h"

#include <optional>
#include <string>
#include <vector>

namespace tarn::publisher {

/** A program that was started ended with an error; the sentence holds what it said first. */
class ProgramError : public PublishError {
public:
	using PublishError::PublishError;
};

/** The path of a program that stands in one of PATH's directories; none when it is not installed. */
std::optional<std::string> FindProgram(const std::string& name);

/**
 * Runs a program to its end, with no input and an environment of its own, so that no variable of the user's changes
 * what it does. It is killed when this process is.
 *
 * @param output  file that gets what it prints
 * @param errors  file that gets what it complains about
 * @throws ProgramError when it cannot be started or does not end with 0
 */
void RunProgram(const std::string& path, const std::vector<std::string>& arguments, const std::string& output,
    const std::string& errors);

} // namespace tarn::publisher

#endif
