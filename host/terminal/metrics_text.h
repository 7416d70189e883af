/** @file Measurements in the text form that Prometheus reads. */
#ifndef HOST_TERMINAL_METRICS_TEXT_H
#define HOST_TERMINAL_METRICS_TEXT_H

#include <string>
#include <utility>
#include <vector>

namespace tarn::ctl {

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
