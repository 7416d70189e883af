#include "host/library/settings.h"

#include "base/nearest.h"
#include "base/settings_lines.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "dataupdate/paths.h"
#include "dataupdate/service_config.h"
#include "dataupdate/update_error.h"
#include "host/library/budget.h"
#include "host/library/failure.h"
#include "host/library/json_record.h"

#include <boost/algorithm/cxx11/any_of.hpp>
#include <json/value.h>

#include <sys/mman.h>
#include <syslog.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <utility>

namespace tarn::ctl {

namespace {

constexpr std::size_t kLongestName = 60;

struct Kind {
	const char* name;
	bool (*is)(const Json::Value& value);
};

using Kinds = std::map<std::string, Kind>;

constexpr Kind kString = {"a string in quotation marks", [](const Json::Value& value) { return value.isString(); }};
constexpr Kind kBoolean = {
    "true or false, without quotation marks", [](const Json::Value& value) { return value.isBool(); }};
constexpr Kind kNumber = {
    "a whole number from 0 to 4294967295", [](const Json::Value& value) { return value.isUInt(); }};
constexpr Kind kFullPackageRule = {R"("always", "diffs only" or a number of bytes such as "200M", in quotation marks)",
    [](const Json::Value& value) { return value.isString() && IsFullPackageRule(value.asString()); }};

Kinds ServiceKinds() {
	return {{"cur_volume", kString}, {"db_netloc", kString}, {"db_ver", kString}, {"digest_threads", kNumber},
	    {"download_scheme", kString}, {"scheduled_full_packages", kFullPackageRule}};
}

Kinds DatabaseKinds() {
	return {{"auto_update", kBoolean}, {"format_version", kString}, {"install_dest", kString},
	    {"min_rsv_space_inbytes", kNumber}};
}

std::vector<std::string> Names(const Kinds& kinds) {
	std::vector<std::string> names;
	for (const auto& [name, kind] : kinds) {
		names.push_back(name);
	}
	return names;
}

[[noreturn]] void RefuseSettings(const std::string& path, const std::string& reason) {
	throw CommandError(
	    kFailed, "The settings in " + path + " cannot be used: " + reason + "; correct or remove that file");
}

/** No value when there is no such file. */
std::optional<Json::Value> Decode(const dataupdate::IOUtils& io, const std::string& path) {
	try {
		return io.ReadJson(path);
	} catch (const dataupdate::UpdateError& error) {
		if (error.code() == dataupdate::UpdateError::kFileNotExist) {
			return std::nullopt;
		}
		RefuseSettings(path, "it is no JSON, or cannot be read");
	}
}

void RequireKinds(const std::string& path, const std::string& section, const Json::Value& values, const Kinds& kinds) {
	if (!values.isObject()) {
		RefuseSettings(path, "'" + section + "' must be an object");
	}
	const auto wrong = std::find_if(kinds.begin(), kinds.end(), [&](const auto& entry) {
		const Json::Value& value = values[entry.first];
		return !value.isNull() && !entry.second.is(value);
	});
	if (wrong != kinds.end()) {
		RefuseSettings(path, "'" + wrong->first + "' of '" + section + "' must be " + wrong->second.name);
	}
}

/**
 * Whoever sets a value writes all others too, and the library's writer replaces bytes that are no UTF-8, and cuts names
 * at a zero byte.
 */
bool CanBeWritten(const Json::Value& value) {
	const UniqueFd file(memfd_create("settings", MFD_CLOEXEC));
	const std::string path = "/proc/self/fd/" + std::to_string(file.Get());
	const dataupdate::IOUtils io;
	io.WriteJson(path, value);
	return io.ReadJson(path) == value;
}

void RequireUsable(const dataupdate::IOUtils& io, const std::string& path, const Kinds& kinds) {
	const std::optional<Json::Value> decoded = Decode(io, path);
	if (!decoded) {
		return;
	}
	const Json::Value& root = *decoded;
	if (!root.isObject()) {
		RefuseSettings(path, "it must hold an object");
	}
	for (const std::string& section : root.getMemberNames()) {
		RequireKinds(path, section, root[section], kinds);
	}
	if (!CanBeWritten(root)) {
		RefuseSettings(path, "it holds text that is no UTF-8, or a name with a zero byte");
	}
}

void FindInLines(const std::string& path, const std::vector<std::string>& known, std::vector<UnknownSetting>& unknown) {
	// What cannot be read is told by who reads it to obey it.
	[[maybe_unused]] const int ignored = ReadSettingsLines(path, "tarndbudctl", [&](const Directive& directive) {
		if (!boost::algorithm::any_of_equal(known, directive.name)) {
			unknown.push_back({path, {directive.name, directive.line}, false, known});
		}
		return nullptr;
	});
}

/** A file of sections of settings, with the text that tells the lines. */
class SectionedFile {
public:
	explicit SectionedFile(std::string path) : path_(std::move(path)), root_(ReadJsonRecord(path_)) {
		std::ifstream file(path_);
		text_.assign(std::istreambuf_iterator<char>(file), {});
		if (!root_.isObject()) {
			root_ = Json::Value(Json::objectValue);
		}
	}

	/** The sections by their names. */
	const Json::Value& Root() const { return root_; }

	/** Adds the members of the root or of a section that are not known. */
	void Find(
	    const Json::Value& object, const std::vector<std::string>& known, std::vector<UnknownSetting>& unknown) const {
		for (const std::string& name : object.isObject() ? object.getMemberNames() : std::vector<std::string>()) {
			if (!boost::algorithm::any_of_equal(known, name)) {
				unknown.push_back({path_, {name, LineOf(name, object[name])}, &object == &root_, known});
			}
		}
	}

private:
	/** The line of the name before a value, or of the value where the name is written with escapes. */
	unsigned int LineOf(const std::string& name, const Json::Value& value) const {
		const auto begin = std::min(static_cast<std::size_t>(value.getOffsetStart()), text_.size());
		const std::size_t at = std::min(text_.rfind('"' + name + '"', begin), begin);
		return 1 + static_cast<unsigned int>(
		               std::count(text_.begin(), text_.begin() + static_cast<std::ptrdiff_t>(at), '\n'));
	}

	std::string path_;
	std::string text_;
	Json::Value root_;
};

} // namespace

void RequireUsableSettings(const dataupdate::IOUtils& io) {
	RequireUsable(io, dataupdate::kServiceOverride, ServiceKinds());
	RequireUsable(io, dataupdate::kDatabaseOverride, DatabaseKinds());
}

std::vector<UnknownSetting> FindUnknownSettings() {
	std::vector<UnknownSetting> unknown;
	const SectionedFile service(dataupdate::kServiceOverride);
	service.Find(service.Root(), {dataupdate::kServiceSection}, unknown);
	service.Find(service.Root()[dataupdate::kServiceSection], Names(ServiceKinds()), unknown);
	const SectionedFile databases(dataupdate::kDatabaseOverride);
	for (const Json::Value& section : databases.Root()) {
		databases.Find(section, Names(DatabaseKinds()), unknown);
	}
	FindInLines(kDownloadSettingsPath, DownloadDirectives(), unknown);
	FindInLines(kVolumeSettingsPath, VolumeDirectives(), unknown);
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
