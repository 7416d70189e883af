#include "dataupdate/file_lock.h"

#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/lock_wait.h"
#include "dataupdate/internal/log.h"
#include "dataupdate/messages.h"
#include "dataupdate/update_error.h"

#include <boost/filesystem.hpp>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>

namespace tarn::dataupdate {

namespace {

constexpr char kLogSource[] = "file_lock.cpp";
constexpr useconds_t kPollMicroseconds = 100000;

} // namespace

LockWait::LockWait(unsigned long timeout_seconds)
    : now_(std::chrono::steady_clock::now()),
      deadline_(now_ + std::chrono::seconds(std::min(timeout_seconds, kLongestWait))) {}

bool LockWait::Lock(int fd, int operation) {
	while (flock(fd, operation | LOCK_NB) != 0) {
		if (now_ >= deadline_ || IsInterrupted()) {
			return false;
		}
		usleep(kPollMicroseconds);
		now_ = std::chrono::steady_clock::now();
	}
	return true;
}

FileLock::FileLock(const std::string& path, unsigned long timeout_seconds) : path_(path) {
	LockWait wait(timeout_seconds);
	MakeDir(path_);
	fd_ = open(path_.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
	if (fd_ < 0) {
		throw UpdateError(messages::kCannotOpenLock + path_);
	}
	if (!wait.Lock(fd_, LOCK_EX)) {
		close(fd_);
		throw UpdateError(messages::kCannotLock + path_);
	}
	TARN_LOG(LOG_INFO, "Acquire lock on file: %s", path_.c_str());
}

FileLock::~FileLock() {
	if (flock(fd_, LOCK_UN) == -1) {
		TARN_LOG(LOG_ERR, "Fail to unlock %s", path_.c_str());
	}
	close(fd_);
	TARN_LOG(LOG_INFO, "Release lock on file: %s", path_.c_str());
}

void FileLock::MakeDir(const std::string& path) {
	try {
		boost::filesystem::create_directories(boost::filesystem::path(path).parent_path());
	} catch (const boost::filesystem::filesystem_error& error) {
		throw UpdateError(std::string(messages::kCannotCreateDirectory) + error.what());
	}
}

} // namespace tarn::dataupdate
