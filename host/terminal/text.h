/** @file Texts for terminals and for monitoring. */
#ifndef HOST_TERMINAL_TEXT_H
#define HOST_TERMINAL_TEXT_H

#include <json/value.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

namespace tarn::ctl {

/** "59 min", "47 h", "12 d": of that unit only whole ones; a negative duration is "in the future". */
std::string FormatDuration(std::int64_t seconds);

/** Local time of day, "14:05". */
std::string FormatClock(std::time_t instant);

/** Rows as columns of equal width, two blanks apart, each row ending in a newline without blanks before it. */
std::string FormatTable(const std::vector<std::vector<std::string>>& rows);

/** A JSON document as text, indented by tabs, with a newline at the end. */
std::string FormatJson(const Json::Value& value);

using Labels = std::vector<std::pair<std::string, std::string>>;

/** Gauges, each with all its samples in one place, as the form wants it. */
class Metrics {
public:
	/** Adds a sample; the help of a name's first sample counts. */
	void Add(const std::string& name, const std::string& help, const Labels& labels, double value);
	/** Names in the order in which they came first; empty without samples. */
	std::string Text() const;

private:
	struct Family {
		std::string name;
		std::string help;
		std::string samples;
	};
	std::vector<Family> families_;
};

} // namespace tarn::ctl

#endif
