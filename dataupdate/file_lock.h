/** @file Exclusive locks between processes. */
#ifndef DATAUPDATE_FILE_LOCK_H
#define DATAUPDATE_FILE_LOCK_H

#include "dataupdate/export.h"

#include <string>

namespace tarn::dataupdate {

/** Seconds that the library waits for every lock of its own. */
constexpr unsigned long kLockTimeout = 600;

/** A longer wait counts as this one, a hundred years, so that no sum of it and a clock overflows. */
constexpr unsigned long kLongestWait = 100UL * 365 * 24 * 3600;

/**
 * An exclusive advisory lock (flock) on a file, held from construction to destruction.
 *
 * Two objects exclude each other in one process as well. The lock file and its directories are created when missing
 * and never removed: a holder of the removed file and a holder of its successor would both think themselves alone. A
 * process that dies releases its lock, unless a child that it forked lives on; no program that it executes has one.
 */
class TARNDBUD_EXPORT FileLock {
public:
	/**
	 * Waits for the lock, trying every 100 ms; with a timeout of 0 exactly once.
	 *
	 * Throws UpdateError "Fail to create dir <why>", "Fail open lock file <path>", or "Fail to lock <path>" when the
	 * lock is still busy after so many seconds.
	 */
	FileLock(const std::string& path, unsigned long timeout_seconds);
	~FileLock();
	FileLock(const FileLock&) = delete;
	FileLock& operator=(const FileLock&) = delete;

private:
	static void MakeDir(const std::string& path);

	std::string path_;
	int fd_ = -1;
};

} // namespace tarn::dataupdate

#endif
