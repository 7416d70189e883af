#include "host/terminal/metrics_text.h"

#include <algorithm>
#include <locale>
#include <sstream>

namespace tarn::ctl {

namespace {

constexpr int kDigitsOfDouble = 17;

std::string Escape(const std::string& text) {
	std::string escaped;
	for (const char character : text) {
		if (character == '\n') {
			escaped += "\\n";
		} else {
			escaped +=
			    character == '\\' || character == '"' ? std::string("\\") + character : std::string(1, character);
		}
	}
	return escaped;
}

std::string FormatLabels(const Labels& labels) {
	std::string text;
	for (const auto& [name, value] : labels) {
		text += (text.empty() ? "" : ",") + name + "=\"" + Escape(value) + "\"";
	}
	return text.empty() ? "" : "{" + text + "}";
}

/** In the same way in every language; whole numbers up to 17 digits without a point. */
std::string FormatValue(double value) {
	std::ostringstream text;
	text.imbue(std::locale::classic());
	text.precision(kDigitsOfDouble);
	text << value;
	return text.str();
}

} // namespace

void Metrics::Add(const std::string& name, const std::string& help, const Labels& labels, double value) {
	auto family =
	    std::find_if(families_.begin(), families_.end(), [&](const Family& known) { return known.name == name; });
	if (family == families_.end()) {
		family = families_.insert(families_.end(), {name, help, ""});
	}
	family->samples += name + FormatLabels(labels) + " " + FormatValue(value) + "\n";
}

std::string Metrics::Text() const {
	std::string text;
	for (const Family& family : families_) {
		text += "# HELP " + family.name + " " + family.help + "\n# TYPE " + family.name + " gauge\n" + family.samples;
	}
	return text;
}

} // namespace tarn::ctl
