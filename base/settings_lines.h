/** @file Lines of the platform's settings files: one directive each, and what "#" begins is a comment. */
#ifndef BASE_SETTINGS_LINES_H
#define BASE_SETTINGS_LINES_H

#include <optional>
#include <string>

namespace tarn {

/** A line's first word, and all that follows without the blanks around it. */
struct Directive {
	std::string name;
	std::string value;
};

/** What a line says; no value for an empty line and for a comment. A "#" within a word is a character like others. */
std::optional<Directive> ParseLine(const std::string& line);

} // namespace tarn

#endif
