#include "host/arguments.h"

#include <algorithm>

namespace tarn::ctl {

namespace {

constexpr char kSeparator[] = "--";

/** The command that is named; a group's commands take neither. */
Tail TailOf(const std::vector<std::string>& words, const std::vector<Command>& commands) {
	const auto name =
	    std::find_if(words.begin(), words.end(), [](const std::string& word) { return word.rfind('-', 0) != 0; });
	const auto command = std::find_if(commands.begin(), commands.end(),
	    [&](const Command& known) { return name != words.end() && *name == known.name; });
	return command == commands.end() ? Tail::kNone : command->tail;
}

bool IsNegativeNumber(const std::string& word) {
	return word.size() > 1 && word.front() == '-' &&
	       std::all_of(word.begin() + 1, word.end(), [](char digit) { return digit >= '0' && digit <= '9'; });
}

} // namespace

Arguments SplitArguments(std::vector<std::string> words, const std::vector<Command>& commands) {
	Arguments arguments;
	const Tail tail = TailOf(words, commands);
	if (tail == Tail::kCommand) {
		const auto separator = std::find(words.begin(), words.end(), kSeparator);
		if (separator != words.end()) {
			arguments.command.assign(separator + 1, words.end());
			words.erase(separator, words.end());
		}
	}
	if (tail == Tail::kNumber && std::find(words.begin(), words.end(), kSeparator) == words.end()) {
		const auto numbers = std::stable_partition(
		    words.begin(), words.end(), [](const std::string& word) { return !IsNegativeNumber(word); });
		if (numbers != words.end()) {
			words.insert(numbers, kSeparator);
		}
	}
	arguments.own = std::move(words);
	return arguments;
}

} // namespace tarn::ctl
