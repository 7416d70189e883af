/** @file What somebody may have meant who typed a command that does not exist. */
#ifndef BASE_NEAREST_H
#define BASE_NEAREST_H

#include <optional>
#include <string>
#include <vector>

namespace tarn {

/** How many letters must be added, taken away, changed, or exchanged with their neighbour. */
std::size_t EditDistance(const std::string& left, const std::string& right);

/** The candidate with the smallest distance, the first of several; none when it is more than a third of the word. */
std::optional<std::string> NearestWord(const std::string& word, const std::vector<std::string>& candidates);

/**
 * Says that a program has no such command, and which one is near.
 *
 * @param arguments  of the program; its command is what does not begin with "-"
 * @param commands   each a word, or a group and a word: "volume show"
 * @return a sentence without its end; empty when there is such a command, or none is named
 */
std::string DescribeUnknownCommand(const std::vector<std::string>& arguments, const std::vector<std::string>& commands);

} // namespace tarn

#endif
