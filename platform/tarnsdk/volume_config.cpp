#include "platform/tarnsdk/volume_config.h"

#include "base/settings_lines.h"

#include <tarnsdk/volume.h>

#include <fnmatch.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <map>

namespace tarn::sdk {
namespace {

constexpr const char* kDefaultPattern = "/volume*";

std::string WithoutTrailingSlashes(std::string path) {
	while (path.size() > 1 && path.back() == '/') {
		path.pop_back();
	}
	return path;
}

/** Takes one line over; otherwise tells what is wrong with it, null when nothing is. */
const char* TakeLine(const std::string& line, VolumeConfig& config) {
	const std::map<std::string, std::vector<std::string>*> lists = {
	    {"pattern", &config.patterns}, {"directory", &config.directories}, {"exclude", &config.exclusions}};
	const std::optional<Directive> directive = ParseLine(line);
	if (!directive) {
		return nullptr;
	}
	const auto list = lists.find(directive->name);
	if (list == lists.end()) {
		return "unknown directive";
	}
	const std::string path = WithoutTrailingSlashes(directive->value);
	if (path.empty()) {
		return "the path is missing";
	}
	if (path[0] != '/') {
		return "the path is not absolute";
	}
	if (path.size() >= TARN_VOLUME_PATH_SIZE) {
		return "the path is too long";
	}
	list->second->push_back(path);
	return nullptr;
}

} // namespace

int ReadVolumeConfig(const std::string& path, VolumeConfig& config) {
	config = VolumeConfig();
	std::ifstream file(path);
	if (!file.is_open() && errno != ENOENT && errno != ENOTDIR) {
		return errno;
	}
	std::string line;
	for (unsigned int number = 1; std::getline(file, line); ++number) {
		if (const char* problem = TakeLine(line, config); problem != nullptr) {
			syslog(LOG_WARNING, "tarnsdk: %s:%u: %s: '%s'", path.c_str(), number, problem, line.c_str());
		}
	}
	if (file.bad()) {
		return EIO;
	}
	if (config.patterns.empty()) {
		config.patterns.emplace_back(kDefaultPattern);
	}
	return 0;
}

bool MatchesAny(const std::vector<std::string>& patterns, const std::string& path) {
	return std::any_of(patterns.begin(), patterns.end(),
	    [&](const std::string& pattern) { return fnmatch(pattern.c_str(), path.c_str(), FNM_PATHNAME) == 0; });
}

} // namespace tarn::sdk
