#include "dataupdate/internal/paths.h"

#include "dataupdate/utils.h"

#include <boost/filesystem/path.hpp>

namespace tarn::dataupdate {

std::string UpdateLockPath(const std::string& id) {
	return (NoexceptFormat("/run/data_update/update_%s.lock") % id).str();
}

std::string UsingLockPath(const std::string& id) {
	return (NoexceptFormat("/run/data_update/using_%s.lock") % id).str();
}

std::string StatusPath(const std::string& id) {
	return (NoexceptFormat("/var/lib/data_update/%s/version.json") % id).str();
}

std::string ReplacementMarkPath(const std::string& id) {
	return (NoexceptFormat("/var/lib/data_update/%s/replacing") % id).str();
}

std::string MainDirPath(const std::string& volume) {
	return (NoexceptFormat("%s/@database/autoupdate") % volume).str();
}

std::string TempDirPath(const std::string& base) {
	return (NoexceptFormat("%s/@tmp/data_update") % base).str();
}

std::string TempPath(const std::string& base, const std::string& id, const std::string& suffix) {
	return (NoexceptFormat("%s/@tmp/data_update/%s_%s") % base % id % suffix).str();
}

std::string JoinPath(const std::string& root, const std::string& path) {
	const boost::filesystem::path right(path);
	return right.is_absolute() ? path : (boost::filesystem::path(root) / right).string();
}

} // namespace tarn::dataupdate
