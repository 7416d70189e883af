/** @file The host's own records of a few values in JSON. */
#ifndef HOST_LIBRARY_JSON_RECORD_H
#define HOST_LIBRARY_JSON_RECORD_H

#include <json/value.h>

#include <filesystem>
#include <optional>
#include <string>

namespace tarn::ctl {

/** A record of the host's, whatever it holds; null when there is none, or none that can be read as JSON. */
[[nodiscard]] Json::Value ReadJsonRecord(const std::string& path);

/** What a function makes of a record; no value when that is no object, or holds values of types that do not fit. */
template<typename Make>
[[nodiscard]] auto ReadJsonRecord(const std::string& path, const Make& make) {
	const Json::Value object = ReadJsonRecord(path);
	try {
		return object.isObject() ? std::optional(make(object)) : std::nullopt;
	} catch (const Json::Exception&) {
		return decltype(std::optional(make(object)))();
	}
}

/** Makes the record's directory where it is missing, and replaces the record as a whole. Throws when that fails. */
void WriteJsonRecord(const std::filesystem::path& path, const Json::Value& object);

} // namespace tarn::ctl

#endif
