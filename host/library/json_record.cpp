#include "host/library/json_record.h"

#include "base/file_io.h"

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

void WriteJsonRecord(const std::filesystem::path& path, const Json::Value& object) {
	std::filesystem::create_directories(path.parent_path());
	WriteWholeFile(path, object.toStyledString());
}

} // namespace tarn::ctl
