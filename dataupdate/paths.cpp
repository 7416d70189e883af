#include "dataupdate/paths.h"

namespace tarn::dataupdate {

std::string UpdateLockPath(const std::string& id) {
	return std::string(kLockDirectory) + "/update_" + id + ".lock";
}

std::string UsingLockPath(const std::string& id) {
	return std::string(kLockDirectory) + "/using_" + id + ".lock";
}

std::string StatePath(const std::string& id, const std::string& name) {
	return "/var/lib/data_update/" + id + "/" + name;
}

std::string StatusPath(const std::string& id) {
	return StatePath(id, "version.json");
}

std::string ReplacementMarkPath(const std::string& id) {
	return StatePath(id, "replacing");
}

std::string MainDirPath(const std::string& volume) {
	return volume + "/@database/autoupdate";
}

std::string TempDirPath(const std::string& volume) {
	return volume + "/@tmp/data_update";
}

} // namespace tarn::dataupdate
