#include "host/library/installed_package.h"

#include "base/whole_file.h"
#include "dataupdate/paths.h"
#include "host/library/failure.h"

#include <json/reader.h>
#include <json/value.h>

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <fstream>

namespace tarn::ctl {

std::string InstalledPackagePath(const std::string& id) {
	return dataupdate::StatePath(id, "installed_package.json");
}

void ForgetInstalledPackage(const std::string& id) {
	const std::string path = InstalledPackagePath(id);
	if (unlink(path.c_str()) != 0 && errno != ENOENT && errno != ENOTDIR) {
		throw CommandError(kFailed, "The file " + path + " cannot be removed (" + std::strerror(errno) + ")");
	}
}

void RecordInstalledPackage(const std::string& id, const OpenedPackage& package) {
	if (!package.published) {
		return;
	}
	Json::Value object(Json::objectValue);
	object["data_version"] = package.data_version;
	object["published"] = Json::Int64{*package.published};
	try {
		WriteWholeFile(InstalledPackagePath(id), object.toStyledString());
	} catch (const std::exception& error) {
		syslog(LOG_WARNING, "The time of publication could not be recorded: %s", error.what());
	}
}

std::optional<int64_t> PublicationTime(const std::string& id, int installed_version) {
	std::ifstream file(InstalledPackagePath(id));
	Json::Value object;
	try {
		if (!file || !Json::parseFromStream(Json::CharReaderBuilder(), file, &object, nullptr) || !object.isObject()) {
			return std::nullopt;
		}
	} catch (const Json::Exception&) {
		return std::nullopt; // nested too deeply
	}
	const bool is_of_it = object["data_version"].isInt() && object["data_version"].asInt() == installed_version;
	if (!is_of_it || !object["published"].isInt64()) {
		return std::nullopt;
	}
	return object["published"].asInt64();
}

} // namespace tarn::ctl
