#include "host/library/json_record.h"

#include <json/reader.h>

#include <fstream>

namespace tarn::ctl {

Json::Value ReadJsonRecord(const std::string& path) {
	std::ifstream file(path);
	Json::Value record;
	try {
		if (file && Json::parseFromStream(Json::CharReaderBuilder(), file, &record, nullptr)) {
			return record;
		}
	} catch (const Json::Exception&) {
		return {}; // Nested too deeply.
	}
	return {};
}

} // namespace tarn::ctl
