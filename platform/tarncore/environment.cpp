#include "platform/tarncore/environment.h"

#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace tarn::core {
namespace {

constexpr const char* kPassedOn[] = {"http_proxy", "https_proxy", "no_proxy", "HTTP_PROXY", "HTTPS_PROXY", "NO_PROXY"};

// Port 9 of the loopback is "discard"; nothing answers there, so a link redirected to FTP fails at once.
constexpr const char* kFixed[] = {
    "PATH=/usr/sbin:/usr/bin:/sbin:/bin",
    "LC_ALL=C",
    "HOME=/nonexistent",
    "ftp_proxy=http://127.0.0.1:9/",
    "FTP_PROXY=http://127.0.0.1:9/",
};

void WarnUnused(const std::string& path, const char* reason) {
	syslog(LOG_WARNING, "tarncore: '%s' is not used: %s", path.c_str(), reason);
}

} // namespace

bool IsTrustedSettingsFile(const std::string& path, uid_t owner) {
	struct stat info = {};
	if (lstat(path.c_str(), &info) != 0) {
		if (errno != ENOENT && errno != ENOTDIR) {
			WarnUnused(path, std::strerror(errno));
		}
		return false;
	}
	if (!S_ISREG(info.st_mode)) {
		WarnUnused(path, "it is no regular file");
		return false;
	}
	if (info.st_uid != owner || (info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
		WarnUnused(path, "others than its administrator may write it");
		return false;
	}
	return true;
}

std::vector<std::string> BuildEnvironment(const std::string& wgetrc, uid_t owner) {
	std::vector<std::string> environment(std::begin(kFixed), std::end(kFixed));
	// Unset otherwise: the client refuses to run when this names no regular file, and an absent home holds no other
	// one.
	if (IsTrustedSettingsFile(wgetrc, owner)) {
		environment.push_back("WGETRC=" + wgetrc);
	}
	for (const char* name : kPassedOn) {
		if (const char* value = std::getenv(name); value != nullptr) {
			environment.push_back(std::string(name) + "=" + value);
		}
	}
	return environment;
}

} // namespace tarn::core
