#include "host/library/unknown_settings.h"

#include "base/nearest.h"
#include "base/settings_lines.h"
#include "base/text.h"
#include "dataupdate/paths.h"
#include "dataupdate/service_config.h"
#include "host/library/preparation.h"

#include <json/reader.h>
#include <json/value.h>

#include <syslog.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <utility>

namespace tarn::ctl {

namespace {

constexpr std::size_t kLongestName = 60;

bool Holds(const std::vector<std::string>& known, const std::string& name) {
	return std::find(known.begin(), known.end(), name) != known.end();
}

std::vector<UnknownSetting> UnknownInLines(const std::string& path, const std::vector<std::string>& known) {
	std::vector<UnknownSetting> unknown;
	// What cannot be read is told by who reads it to obey it.
	[[maybe_unused]] const int ignored = ReadSettingsLines(path, "tarndbudctl", [&](const Directive& directive) {
		if (!Holds(known, directive.name)) {
			unknown.push_back({path, {directive.name, directive.line}, false, known});
		}
		return nullptr;
	});
	return unknown;
}

/** A file of sections of settings, with the text that tells the lines. */
class SectionedFile {
public:
	explicit SectionedFile(std::string path) : path_(std::move(path)) {
		std::ifstream file(path_);
		text_.assign(std::istreambuf_iterator<char>(file), {});
		const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
		try {
			if (!reader->parse(text_.data(), text_.data() + text_.size(), &root_, nullptr) || !root_.isObject()) {
				root_ = Json::Value(Json::objectValue);
			}
		} catch (const Json::Exception&) { // for what is nested too deeply
			root_ = Json::Value(Json::objectValue);
		}
	}

	std::vector<UnknownSetting> UnknownSections(const std::vector<std::string>& known) const {
		return UnknownMembers(root_, known, true);
	}
	std::vector<UnknownSetting> UnknownSettings(
	    const std::string& section, const std::vector<std::string>& known) const {
		return UnknownMembers(root_[section], known, false);
	}
	std::vector<std::string> Sections() const { return root_.getMemberNames(); }

private:
	std::vector<UnknownSetting> UnknownMembers(
	    const Json::Value& object, const std::vector<std::string>& known, bool is_section) const {
		std::vector<UnknownSetting> unknown;
		for (const std::string& name : object.isObject() ? object.getMemberNames() : std::vector<std::string>()) {
			if (!Holds(known, name)) {
				unknown.push_back({path_, {name, LineOf(name, object[name])}, is_section, known});
			}
		}
		return unknown;
	}

	/** The line of the name before a value, or of the value where the name is written with escapes. */
	unsigned int LineOf(const std::string& name, const Json::Value& value) const {
		const auto begin = std::min(static_cast<std::size_t>(value.getOffsetStart()), text_.size());
		const std::size_t at = std::min(text_.rfind('"' + name + '"', begin), begin);
		return 1 + static_cast<unsigned int>(
		               std::count(text_.begin(), text_.begin() + static_cast<std::ptrdiff_t>(at), '\n'));
	}

	std::string path_;
	std::string text_;
	Json::Value root_{Json::objectValue};
};

void Add(std::vector<UnknownSetting>& all, const std::vector<UnknownSetting>& more) {
	all.insert(all.end(), more.begin(), more.end());
}

} // namespace

std::vector<UnknownSetting> FindUnknownSettings() {
	std::vector<UnknownSetting> unknown;
	const SectionedFile service(dataupdate::kServiceOverride);
	Add(unknown, service.UnknownSections({dataupdate::kServiceSection}));
	Add(unknown, service.UnknownSettings(dataupdate::kServiceSection, ServiceSettings()));
	const SectionedFile databases(dataupdate::kDatabaseOverride);
	for (const std::string& id : databases.Sections()) {
		Add(unknown, databases.UnknownSettings(id, DatabaseSettings()));
	}
	Add(unknown, UnknownInLines(kDownloadSettingsPath, DownloadDirectives()));
	Add(unknown, UnknownInLines(kVolumeSettingsPath, VolumeDirectives()));
	return unknown;
}

std::string Describe(const UnknownSetting& unknown) {
	const std::optional<std::string> nearest = NearestWord(unknown.setting.name, unknown.known);
	return unknown.path + ":" + std::to_string(unknown.setting.line) + ": there is no " +
	       (unknown.is_section ? "section" : "setting") + " \"" + PlainAscii(unknown.setting.name, kLongestName) +
	       "\", so it has no effect" + (nearest ? "; did you mean \"" + *nearest + "\"?" : "");
}

void LogUnknownSettings() {
	for (const UnknownSetting& unknown : FindUnknownSettings()) {
		syslog(LOG_WARNING, "%s", Describe(unknown).c_str());
	}
}

} // namespace tarn::ctl
