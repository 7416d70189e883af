#include "host/library/settings.h"

#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"
#include "host/library/failure.h"

#include <map>
#include <optional>
#include <string>

namespace tarn::ctl {

using dataupdate::UpdateError;

namespace {

struct Kind {
	const char* name;
	bool (*is)(const Json::Value& value);
};

using Kinds = std::map<std::string, Kind>;

bool IsString(const Json::Value& value) {
	return value.isString();
}

bool IsBoolean(const Json::Value& value) {
	return value.isBool();
}

bool IsNumber(const Json::Value& value) {
	return value.isUInt();
}

constexpr Kind kString = {"a string in quotation marks", IsString};
constexpr Kind kBoolean = {"true or false, without quotation marks", IsBoolean};
constexpr Kind kNumber = {"a whole number from 0 to 4294967295", IsNumber};

[[noreturn]] void Refuse(const std::string& path, const std::string& reason) {
	throw CommandError(
	    kFailed, "The settings in " + path + " cannot be used: " + reason + "; correct or remove that file");
}

/** No value when there is no such file. */
std::optional<Json::Value> Decode(const dataupdate::IOUtils& io, const std::string& path) {
	try {
		return io.ReadJson(path);
	} catch (const UpdateError& error) {
		if (error.code() == UpdateError::kFileNotExist) {
			return std::nullopt;
		}
		Refuse(path, "it is no JSON, or cannot be read");
	}
}

void RequireKind(const std::string& path, const std::string& section, const std::string& key, const Kind& kind,
    const Json::Value& value) {
	if (!value.isNull() && !kind.is(value)) {
		Refuse(path, "'" + key + "' of '" + section + "' must be " + kind.name);
	}
}

void RequireKinds(const std::string& path, const std::string& section, const Json::Value& values, const Kinds& kinds) {
	if (!values.isObject()) {
		Refuse(path, "'" + section + "' must be an object");
	}
	for (const auto& [key, kind] : kinds) {
		RequireKind(path, section, key, kind, values[key]);
	}
}

void RequireUsable(const dataupdate::IOUtils& io, const std::string& path, const Kinds& kinds) {
	const std::optional<Json::Value> decoded = Decode(io, path);
	if (!decoded) {
		return;
	}
	const Json::Value& root = *decoded;
	if (!root.isObject()) {
		Refuse(path, "it must hold an object");
	}
	for (const std::string& section : root.getMemberNames()) {
		RequireKinds(path, section, root[section], kinds);
	}
}

} // namespace

void RequireUsableSettings(const dataupdate::IOUtils& io) {
	RequireUsable(io, dataupdate::kServiceOverride,
	    {{"cur_volume", kString}, {"db_netloc", kString}, {"db_ver", kString}, {"download_scheme", kString}});
	RequireUsable(io, dataupdate::kDatabaseOverride,
	    {{"auto_update", kBoolean}, {"format_version", kString}, {"install_dest", kString},
	        {"min_rsv_space_inbytes", kNumber}});
}

} // namespace tarn::ctl
