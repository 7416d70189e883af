#include "dataupdate/internal/temp_data.h"

#include "dataupdate/internal/file_copy.h"
#include "dataupdate/internal/log.h"
#include "dataupdate/paths.h"
#include "dataupdate/utils.h"

#include <boost/filesystem.hpp>

namespace tarn::dataupdate {

namespace {

constexpr char kLogSource[] = "strategy";

} // namespace

std::string TempPath(const std::string& volume, const std::string& id, const std::string& suffix) {
	return TempDirPath(volume) + "/" + id + "_" + suffix;
}

void MakeEmptyDirectory(const std::string& path) {
	const IOUtils io;
	io.RmRf(path);
	io.TarnMkdir(path);
}

void RemoveLink(const std::string& path) {
	boost::system::error_code ignored;
	if (boost::filesystem::is_symlink(boost::filesystem::symlink_status(path, ignored))) {
		IOUtils().RmRf(path);
	}
}

void CleanTarball(const std::string& path) noexcept {
	try {
		RemoveFile(path);
	} catch (const std::exception& error) {
		TARN_LOG(LOG_ERR, "Failed to clean tarball '%s': %s", path.c_str(), error.what());
	}
}

void CleanTmpData(const std::string& path) noexcept {
	try {
		IOUtils().RmRf(path);
	} catch (const std::exception& error) {
		TARN_LOG(LOG_ERR, "Failed to clean tmp data: %s", error.what());
	}
}

} // namespace tarn::dataupdate
