#include "base/usage.h"

#include "base/text.h"

#include <algorithm>

namespace tarn {

namespace {

constexpr char kUsage[] = "Usage: ";
constexpr char kMoreHelp[] = " --help\" for more.\n";

/** The line "Usage: ..." without its beginning; empty when there is none. */
std::string UsageIn(const std::string& help) {
	const std::size_t begin = StartsWith(help, kUsage) ? 0 : help.find(std::string("\n") + kUsage);
	if (begin == std::string::npos) {
		return "";
	}
	const std::size_t from = help.find(kUsage, begin) + sizeof kUsage - 1;
	return help.substr(from, std::min(help.find('\n', from), help.size()) - from);
}

} // namespace

std::string DescribeWrongUsage(const std::string& program, const std::string& sentence, const std::string& help) {
	const std::string usage = UsageIn(help);
	const bool has_end = EndsWith(sentence, ".") || EndsWith(sentence, "?");
	const std::string command = usage.empty() ? program : usage.substr(0, usage.find(" ["));
	return program + ": " + sentence + (has_end ? "\n" : ".\n") + (usage.empty() ? "" : kUsage + usage + "\n") +
	       "Run \"" + command + kMoreHelp;
}

} // namespace tarn
