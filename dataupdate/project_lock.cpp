#include "dataupdate/project_lock.h"

#include "base/unique_fd.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/internal/lock_wait.h"
#include "dataupdate/internal/log.h"
#include "dataupdate/paths.h"
#include "dataupdate/update_error.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <utility>

namespace tarn::dataupdate {

namespace {

constexpr char kLogSource[] = "project_lock.cpp";

bool IsSupported(const std::string& project) {
	try {
		const auto config = std::make_shared<Config>(std::make_shared<IOUtils>());
		ServiceConfig(config).CheckSupported(project);
	} catch (const UpdateError& error) {
		TARN_LOG(LOG_ERR, "Failed to check supported: %s", error.what());
		return false;
	}
	return true;
}

bool IsLocked(const std::string& path) {
	try {
		const FileLock probe(path, 0);
	} catch (const UpdateError&) {
		return true;
	}
	return false;
}

int LockShared(const std::string& path, LockWait wait) {
	UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
	if (!fd) {
		TARN_LOG(LOG_ERR, "Failed to open lock file: %s", path.c_str());
		return -2;
	}
	if (!wait.Lock(fd.Get(), LOCK_SH)) {
		TARN_LOG(LOG_ERR, "Get file lock timeout.");
		return -1;
	}
	return fd.Release();
}

} // namespace

Checker::Checker(std::shared_ptr<ServiceConfig> service_config) : service_config_(std::move(service_config)) {}

Checker::~Checker() = default;

bool Checker::IsUpdating(const std::string& id) const {
	service_config_->CheckSupported(id);
	return IsLocked(UpdateLockPath(id));
}

bool Checker::IsAnyUpdating() const {
	return IsLocked(kUpdateAnyLock);
}

} // namespace tarn::dataupdate

int TARNDBUDGetFileLock(const char* project, unsigned long timeout_seconds) {
	using namespace tarn::dataupdate;
	const LockWait wait(timeout_seconds);
	const std::string path = UsingLockPath(project);
	if (!IsSupported(project)) {
		TARN_LOG(LOG_ERR, "[%s] is not supported, skip getting lock", project);
		return -2;
	}
	return LockShared(path, wait);
}

void TARNDBUDReleaseFileLock(int fd) {
	using namespace tarn::dataupdate;
	if (fd < 0) {
		return;
	}
	if (flock(fd, LOCK_UN) == -1) {
		TARN_LOG(LOG_ERR, "Failed to release file lock");
	}
	close(fd);
}
