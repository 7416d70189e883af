#include "file_check.h"

#include <dataupdate/updater.h>

#include <boost/filesystem.hpp>

#include <unistd.h>

namespace tarn::ctl {

namespace fs = boost::filesystem;

namespace {

std::string FullPath(const std::string& root, const std::string& name) {
	return fs::path(name).is_absolute() ? name : (fs::path(root) / name).string();
}

/** Why a file is bad, for people; the decision has been made already. */
std::string Reason(const std::string& path) {
	boost::system::error_code ignored;
	const fs::file_status status = fs::status(path, ignored);
	if (!fs::exists(status)) {
		return "is missing";
	}
	if (!fs::is_regular_file(status)) {
		return "is no regular file";
	}
	return access(path.c_str(), R_OK | W_OK) == 0 ? "has changed" : "cannot be opened for reading and writing";
}

} // namespace

std::vector<BadFile> FindBadFiles(const dataupdate::DatabaseStatus& status, const std::string& install_prefix) {
	std::vector<BadFile> bad;
	for (const auto& entry : status.file_statuses) {
		if (!dataupdate::CheckStatus({entry}, install_prefix)) {
			const std::string path = FullPath(install_prefix, entry.first);
			bad.push_back({entry.first, path, Reason(path)});
		}
	}
	return bad;
}

} // namespace tarn::ctl
