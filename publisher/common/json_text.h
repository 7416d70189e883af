/** @file JSON as the publisher's files hold it. */
#ifndef PUBLISHER_COMMON_JSON_TEXT_H
#define PUBLISHER_COMMON_JSON_TEXT_H

#include <json/json.h>

#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace tarn::publisher {

/**
 * Parses a text; no value when it is no JSON, or nested too deeply to be read.
 *
 * @param errors  gets the parser's reasons, when given
 */
[[nodiscard]] std::optional<Json::Value> ParseJson(std::string_view text, std::string* errors = nullptr);

/** An object with these members. */
Json::Value JsonObject(std::initializer_list<std::pair<const char*, Json::Value>> members);

/** An array of what a function makes of each item. */
template<typename Items, typename Function>
Json::Value JsonArray(const Items& items, const Function& to_json) {
	Json::Value array(Json::arrayValue);
	for (const auto& item : items) {
		array.append(to_json(item));
	}
	return array;
}

/** The text of a value without a newline at its end: one line, unless an indentation is given. */
std::string JsonText(const Json::Value& value, const char* indentation = "");

} // namespace tarn::publisher

#endif
