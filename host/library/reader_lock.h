/** @file The lock that readers of a database hold. */
#ifndef HOST_LIBRARY_READER_LOCK_H
#define HOST_LIBRARY_READER_LOCK_H

#include <string>

namespace tarn::ctl {

/** Holds off a replacement of a database's files from construction to destruction, through the library's C interface.
 */
class ReaderLock {
public:
	/** Throws CommandError with 75 when the database is still being replaced after so many seconds. */
	ReaderLock(const std::string& id, unsigned long timeout_seconds);
	~ReaderLock();
	ReaderLock(const ReaderLock&) = delete;
	ReaderLock& operator=(const ReaderLock&) = delete;

	/** False when there is no lock file: nothing was replaced since the system started. */
	bool Held() const { return fd_ >= 0; }

private:
	int fd_;
};

/** Makes a database's lock file, which a restart takes away; whether it is there afterwards. */
bool MakeReaderLockFile(const std::string& id);

} // namespace tarn::ctl

#endif
