/**
 * @file
 * Platform core: running programs, creating directories, and the user-agent string.
 *
 * Every function may be called from any thread. None throws. The last failure of the calling thread is kept and
 * returned by TLIBCErrGet().
 */
#ifndef TARNCORE_TARNCORE_H
#define TARNCORE_TARNCORE_H

#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Bits of the option mask of TLIBCExecl(). */
enum TLIBCExecOption {
	TLIBC_EXEC_WAIT = 0x01,         /**< Wait for the program's end; without it the program runs on by itself. */
	TLIBC_EXEC_CLOSE_FDS = 0x02,    /**< Close every descriptor above 2 in the child. */
	TLIBC_EXEC_NEW_GROUP = 0x04,    /**< Make the child the leader of a process group of its own. */
	TLIBC_EXEC_STDIN_NULL = 0x08,   /**< Standard input is /dev/null. */
	TLIBC_EXEC_STDOUT_NULL = 0x10,  /**< Standard output is /dev/null. */
	TLIBC_EXEC_STDERR_NULL = 0x20,  /**< Standard error is /dev/null. */
	TLIBC_EXEC_KEEP_SIGNALS = 0x40, /**< Keep the caller's signal mask and ignored signals instead of resetting them. */
	TLIBC_EXEC_CLEAN_ENV = 0x80,    /**< Give the child the built environment described at TLIBCExecl(). */
};

/** The mask for a quiet, isolated helper program: wait, no descriptors, no streams, built environment (0xBB). */
#define TLIBC_EXEC_ISOLATED                                                                                            \
	(TLIBC_EXEC_WAIT | TLIBC_EXEC_CLOSE_FDS | TLIBC_EXEC_STDIN_NULL | TLIBC_EXEC_STDOUT_NULL |                         \
	    TLIBC_EXEC_STDERR_NULL | TLIBC_EXEC_CLEAN_ENV)

/**
 * Runs a program, never through a shell.
 *
 * @param path     absolute path of the program; it is also argument 0
 * @param options  mask of TLIBCExecOption bits
 * @param ...      the arguments (const char*), ended by a null pointer
 * @return 0 when it ran and exited with status 0; the exit status when it exited with another one; -1 when it could
 *         not be started or a signal ended it (TLIBCErrGet() tells which). Without TLIBC_EXEC_WAIT: 0 when started.
 *
 * A program that is waited for is killed when the waiting thread or process ends, so that nothing of an interrupted run
 * goes on writing beside the next one. Without TLIBC_EXEC_WAIT it becomes a child of the system's reaper, not a zombie.
 * In a process that ignores SIGCHLD, or reaps children that aren't its own, the program's end cannot be learnt: -1 with
 * ECHILD.
 *
 * With TLIBC_EXEC_CLEAN_ENV the child inherits nothing of the caller's environment but its proxy variables
 * (http_proxy, https_proxy, no_proxy and their upper-case forms). It gets PATH=/usr/sbin:/usr/bin:/sbin:/bin, LC_ALL=C,
 * HOME=/nonexistent (the home that Debian's policy keeps absent: nothing to obey in it, nothing can be left there),
 * WGETRC naming "/usr/tarn/etc/data_update/wgetrc" when that is a regular file owned by root that nobody else may
 * write, and no WGETRC otherwise, and an ftp_proxy that leads nowhere, because a link that redirects to FTP would leave
 * the protections of the HTTP client behind. (Hosts that no_proxy names are reached without a proxy, by FTP too.)
 *
 * The HTTP client "/usr/bin/wget", when it is waited for and "-O" names a file, runs under guard, whoever calls. It is
 * killed, and the call fails with TLIBC_ERR_DOWNLOAD plus a TLIBCDownloadEnd, when the file would not leave 5 % of its
 * file system free (a file of up to 2 MiB: as much as it takes), when it is slower than the lowest rate of
 * "/usr/tarn/etc/downloads.conf" for the patience that is set there (1000 bytes/s for 120 s; waiting for the first byte
 * counts), when it does not end within the deadline of that file (14400 s), and beyond what TLIBCDownloadLimiterSet()
 * adds. The client cannot write more than that by a single byte, since the system holds it to its largest file.
 * With TLIBC_EXEC_CLEAN_ENV it reads nothing of the system's own settings, "/etc/wgetrc": settings that always hold (no
 * .netrc, no HSTS, at most 5 redirects, 60 s without a byte) come from its standard input instead, which SYSTEM_WGETRC
 * names.
 */
int TLIBCExecl(const char* path, unsigned int options, ...) __attribute__((sentinel));

/**
 * Runs a program with up to four arguments and waits for it; descriptors above 2 are closed in the child and its
 * signals reset, its environment is the built one, and its standard input is /dev/null since nobody is there to answer
 * it. The first null pointer among the arguments ends the list. It leads a process group of its own, out of the reach
 * of a terminal's keys, and it dies with its caller: what went on moving files would do so without the caller's locks.
 *
 * @return 0 when the program exited with status 0, and -1 in every other case, since callers take any result that
 *         isn't negative for a success
 */
int TLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3, const char* arg4);

/**
 * The code of the calling thread's last failed platform operation, 0 before the first. An errno value, or
 * TLIBC_ERR_EXIT plus a program's exit status, or TLIBC_ERR_SIGNAL plus the signal that ended it, or TLIBC_ERR_DOWNLOAD
 * plus a TLIBCDownloadEnd.
 */
int TLIBCErrGet(void);

/** Sets what TLIBCErrGet() returns in this thread; for the platform's own libraries. */
void TLIBCErrSet(int code);

/** Added to a program's exit status: the program ended with it. */
#define TLIBC_ERR_EXIT 0x10000
/** Added to a signal's number: the signal ended the program. */
#define TLIBC_ERR_SIGNAL 0x20000

/** Added to a TLIBCDownloadEnd: the guard ended a download. */
#define TLIBC_ERR_DOWNLOAD 0x40000

/** Why the guard ended a download. */
enum TLIBCDownloadEnd {
	TLIBC_DOWNLOAD_TOO_LARGE = 1, /**< Larger than the host expected. */
	TLIBC_DOWNLOAD_NO_SPACE = 2,  /**< Larger than the file system allows. */
	TLIBC_DOWNLOAD_TOO_SLOW = 3,  /**< Below the lowest rate. */
	TLIBC_DOWNLOAD_TOO_LONG = 4,  /**< Beyond the deadline. */
};

/** What a host knows of one download; all zero: nothing. */
struct TLIBCDownloadLimits {
	unsigned long long largest_bytes; /**< The largest file, 0 for any. Only ever less than what the disk allows. */
	const char* largest_is; /**< What that number is, for messages: "announced"; lives as long as the process. */
	unsigned int seconds;   /**< Deadline of this download, 0 for the settings' one. Only ever earlier. */
};

/**
 * Tells the limits of a download that is about to begin, in the thread that waits for it.
 *
 * @param url     what is fetched
 * @param file    where it is written
 * @param limits  all zero, to be filled
 * @param data    what TLIBCDownloadLimiterSet() was given
 */
// NOLINTNEXTLINE(modernize-use-using): C reads this too
typedef void (*TLIBCDownloadLimiter)(const char* url, const char* file, struct TLIBCDownloadLimits* limits, void* data);

/**
 * Sets the function that tells limits, one for the whole process; null for none. Returns when no call of the function
 * before it is going on. The function must not download anything.
 */
void TLIBCDownloadLimiterSet(TLIBCDownloadLimiter limiter, void* data);

/**
 * Why the guard ended the calling thread's last download, as the end of a sentence: "it was slower than 1000 bytes/s
 * for 120 s". When the client failed by itself and its error stream went nowhere: the last line of what it said there,
 * "Connecting to 192.0.2.1:80... failed: Connection refused.", which may hold text of the server. Otherwise empty.
 * Valid until the thread's next download.
 */
const char* TLIBCDownloadFailureGet(void);

/** Whether the path exists, links followed: 1 or 0. */
int TLIBCFileExist(const char* path);

/**
 * Creates a directory with all missing parents.
 *
 * @param path   directory to create; an existing directory (or link to one) is success
 * @param mode   permission bits of created directories, less the umask; 0 means 0755
 * @param flags  reserved, 0
 * @param uid    owner of created directories, (uid_t)-1 leaves it
 * @param gid    group of created directories, (gid_t)-1 leaves it
 * @param extra  reserved; callers pass -1
 * @return non-zero on success, 0 on failure (TLIBCErrGet() tells why)
 */
int TARNFSMkdirP(const char* path, mode_t mode, unsigned int flags, uid_t uid, gid_t gid, int extra);

/**
 * Writes the HTTP user-agent string, such as "tarn/1.0 (Debian GNU/Linux 12; x86_64) database".
 *
 * @param category  word that ends the string: what the request is for
 * @param buffer    receives the text and a NUL
 * @param size      bytes in buffer
 * @return the text's length; -1 when an argument is null or the buffer is too small
 */
int TLIBHostinfoUserAgentGet(const char* category, char* buffer, size_t size);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
