/** @file The platform's settings files: one directive each, and what "#" begins is a comment. */
#ifndef BASE_SETTINGS_LINES_H
#define BASE_SETTINGS_LINES_H

#include <functional>
#include <string>
#include <vector>

namespace tarn {

/** A line's first word, and all that follows without the blanks around it. */
struct Directive {
	std::string name;
	std::string value;
	unsigned int line = 0; ///< From 1 on.
};

constexpr char kDownloadSettingsPath[] = "/usr/tarn/etc/downloads.conf";
constexpr char kVolumeSettingsPath[] = "/usr/tarn/etc/volumes.conf";

/** The names of all directives of "downloads.conf". */
std::vector<std::string> DownloadDirectives();
/** The names of all directives of "volumes.conf". */
std::vector<std::string> VolumeDirectives();

/** Takes one directive over; otherwise tells what is wrong with it, null when nothing is. */
using TakeDirective = std::function<const char*(const Directive& directive)>;

/**
 * Hands each directive of a file to a function; empty lines and comments have none. A "#" within a word is a character
 * like others. A directive that is not taken is told to syslog, with the file and the line, and skipped.
 *
 * @param program  begins the lines in syslog
 * @return 0, or an errno value when the file cannot be opened or read to its end
 */
[[nodiscard]] int ReadSettingsLines(const std::string& path, const char* program, const TakeDirective& take);

} // namespace tarn

#endif
