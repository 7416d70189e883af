/** @file How programs refuse a wrong command line. */
#ifndef BASE_USAGE_H
#define BASE_USAGE_H

#include <string>

namespace tarn {

/**
 * What a program prints about a wrong command line: the error, the one line of usage, and where there is more. The help
 * itself would push the error off the screen.
 *
 * @param sentence  what is wrong; gets a full stop when it has no end
 * @param help      of the command that is named, with its line "Usage: ..."
 */
std::string DescribeWrongUsage(const std::string& program, const std::string& sentence, const std::string& help);

} // namespace tarn

#endif
