#include "dataupdate/internal/staging.h"

#include "dataupdate/internal/log.h"

#include <sys/stat.h>
#include <sys/xattr.h>

namespace tarn::dataupdate {

namespace {

constexpr char kLogSource[] = "staging.cpp";

} // namespace

void TellSlowReplacement(const std::string& reason) {
	TARN_LOG(LOG_INFO, "Readers will wait for every file: %s", reason.c_str());
}

bool AreOnOneFileSystem(const std::string& left, const std::string& right) {
	struct stat left_status {};
	struct stat right_status {};
	return stat(left.c_str(), &left_status) == 0 && stat(right.c_str(), &right_status) == 0 &&
	       left_status.st_dev == right_status.st_dev;
}

bool HandsAttributesDown(const std::string& directory) {
	struct stat status {};
	return stat(directory.c_str(), &status) != 0 || (status.st_mode & S_ISGID) != 0 ||
	       getxattr(directory.c_str(), "system.posix_acl_default", nullptr, 0) > 0;
}

} // namespace tarn::dataupdate
