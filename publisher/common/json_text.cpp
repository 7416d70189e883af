#include "publisher/common/json_text.h"

#include <memory>

namespace tarn::publisher {

std::optional<Json::Value> ParseJson(std::string_view text, std::string* errors) {
	const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
	Json::Value value;
	try {
		if (reader->parse(text.data(), text.data() + text.size(), &value, errors)) {
			return value;
		}
	} catch (const Json::Exception& error) {
		if (errors != nullptr) {
			*errors = error.what();
		}
	}
	return std::nullopt;
}

Json::Value JsonObject(std::initializer_list<std::pair<const char*, Json::Value>> members) {
	Json::Value object(Json::objectValue);
	for (const auto& [name, value] : members) {
		object[name] = value;
	}
	return object;
}

std::string JsonText(const Json::Value& value, const char* indentation) {
	Json::StreamWriterBuilder builder;
	builder["indentation"] = indentation;
	return Json::writeString(builder, value);
}

} // namespace tarn::publisher
