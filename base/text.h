/** @file Texts that more than one folder writes: for logs, documents and people. */
#ifndef BASE_TEXT_H
#define BASE_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarn {

/** Bytes as lower-case hexadecimal digits. */
std::string Hex(const unsigned char* bytes, std::size_t size);

/** The text of an errno value after what was attempted: "cannot open x: No such file or directory". */
std::string ErrnoText(const std::string& attempt, int error);

/** A name from outside made fit for one log line: control characters become \xNN, everything else stays. */
std::string Printable(std::string_view name);

/**
 * A text from outside made safe for a terminal and a single line: whatever is not printable ASCII becomes a space
 * (white space) or "?", and a text of more characters than allowed is cut and ends in "...".
 */
std::string PlainAscii(std::string_view text, std::size_t most_characters);

/** "999 B", "12.3 MB": decimal units, as disks are sold and networks are rated. */
std::string HumanSize(std::uint64_t bytes);

/** A text without any of the characters at its end, such as a sentence that is to be continued. */
std::string WithoutEnd(std::string text, const char* end = ".");

/** The components of a path without those that lead nowhere, which are empty ones and ".". */
std::vector<std::string> PathSteps(std::string_view path);
/** Such components with "/" between them. */
std::string JoinSteps(const std::vector<std::string>& steps);

bool StartsWith(std::string_view text, std::string_view prefix);
bool EndsWith(std::string_view text, std::string_view suffix);

} // namespace tarn

#endif
