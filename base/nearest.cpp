#include "base/nearest.h"

#include "base/text.h"

#include <algorithm>
#include <cstddef>
#include <numeric>

namespace tarn {

namespace {

constexpr std::size_t kLongestWord = 40;
constexpr std::size_t kShare = 3;

using Row = std::vector<std::size_t>;

/** The distances of a beginning of the left word to all beginnings of the right one. */
Row NextRow(const std::string& left, const std::string& right, std::size_t at, const Row& last, const Row& before) {
	Row row = {at};
	for (std::size_t to = 1; to <= right.size(); ++to) {
		const std::size_t changed = left[at - 1] == right[to - 1] ? 0 : 1;
		std::size_t least = std::min({last[to] + 1, row[to - 1] + 1, last[to - 1] + changed});
		if (at > 1 && to > 1 && left[at - 1] == right[to - 2] && left[at - 2] == right[to - 1]) {
			least = std::min(least, before[to - 2] + 1);
		}
		row.push_back(least);
	}
	return row;
}

/** The words behind a prefix, each once. */
std::vector<std::string> FirstWords(const std::vector<std::string>& commands, const std::string& prefix) {
	std::vector<std::string> words;
	for (const std::string& command : commands) {
		if (!StartsWith(command, prefix)) {
			continue;
		}
		const std::string word = command.substr(prefix.size(), command.find(' ', prefix.size()) - prefix.size());
		if (std::find(words.begin(), words.end(), word) == words.end()) {
			words.push_back(word);
		}
	}
	return words;
}

std::string Describe(const std::string& prefix, const std::string& word, const std::vector<std::string>& candidates) {
	const std::optional<std::string> nearest = NearestWord(word, candidates);
	return "There is no command \"" + prefix + PlainAscii(word, kLongestWord) + "\"" +
	       (nearest ? "; did you mean \"" + prefix + *nearest + "\"?" : "");
}

} // namespace

std::size_t EditDistance(const std::string& left, const std::string& right) {
	Row before;
	Row last(right.size() + 1);
	std::iota(last.begin(), last.end(), std::size_t{0});
	for (std::size_t at = 1; at <= left.size(); ++at) {
		Row row = NextRow(left, right, at, last, before);
		before = std::move(last);
		last = std::move(row);
	}
	return last.back();
}

std::optional<std::string> NearestWord(const std::string& word, const std::vector<std::string>& candidates) {
	if (word.size() > kLongestWord) {
		return std::nullopt;
	}
	const std::string* nearest = nullptr;
	std::size_t least = std::max<std::size_t>(1, word.size() / kShare) + 1;
	for (const std::string& candidate : candidates) {
		const std::size_t distance = EditDistance(word, candidate);
		if (distance < least) {
			least = distance;
			nearest = &candidate;
		}
	}
	return nearest == nullptr ? std::nullopt : std::optional(*nearest);
}

std::string DescribeUnknownCommand(
    const std::vector<std::string>& arguments, const std::vector<std::string>& commands) {
	std::string prefix;
	for (const std::string& word : arguments) {
		if (StartsWith(word, "-")) {
			continue;
		}
		const std::vector<std::string> candidates = FirstWords(commands, prefix);
		if (std::find(candidates.begin(), candidates.end(), word) == candidates.end()) {
			return Describe(prefix, word, candidates);
		}
		prefix += word;
		if (std::find(commands.begin(), commands.end(), prefix) != commands.end()) {
			return "";
		}
		prefix += ' ';
	}
	return "";
}

} // namespace tarn
