/** @file Running other programs. */
#ifndef PUBLISHER_COMMON_PROGRAM_H
#define PUBLISHER_COMMON_PROGRAM_H

#include <optional>
#include <string>
#include <vector>

namespace tarn::publisher {

/** The path of a program that lies in one of PATH's directories; no value when it is not installed. */
[[nodiscard]] std::optional<std::string> FindProgram(const std::string& name);

/**
 * Runs a program to its end, without input and without the user's variables, which could change what the program does.
 * The program is killed when this process is killed.
 *
 * @param output  file that gets its output
 * @param errors  file that gets its error stream
 * @throws PublishError when it cannot be started or does not end with 0; with the first line of its complaint then
 */
void RunProgram(const std::string& path, const std::vector<std::string>& arguments, const std::string& output,
    const std::string& errors);

} // namespace tarn::publisher

#endif
