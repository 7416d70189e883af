/**
 * @file
 * Platform volumes: the file systems that may hold service data.
 *
 * A volume is a mounted file system whose mount path matches one of the configured patterns, or a directory that the
 * configuration lists by name (for machines with one disk). Pseudo file systems (tmpfs among them), network file
 * systems and swap areas are no volumes by pattern; a listed directory counts on any file system. The configuration is
 * "/usr/tarn/etc/volumes.conf": one directive a line, "#" at a word's beginning starts a comment:
 *   pattern /volume*        mount paths that are volumes, as a shell pattern; such lines replace this default
 *   directory /srv/data     an existing directory that counts as a volume of its own
 *   exclude /volumeUSB*     volumes that must not hold service data, as a shell pattern
 * A "*" doesn't reach across "/". Lines that cannot be understood are told to syslog and skipped; without the file the
 * default pattern is used alone. Mounts come from libmount. Every function may be called from any thread, takes no
 * lock, and reads the configuration and the mounts again, which may wait for a slow disk. Nothing is written. No
 * function throws; after a failure TLIBCErrGet() returns the reason in the calling thread.
 */
#ifndef TARNSDK_VOLUME_H
#define TARNSDK_VOLUME_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Bits of TARNMountVolInfo.flags. */
enum TARNVolumeFlag {
	TARN_VOLUME_FLAG_DATA = 0x01, /**< Holds data: a real file system, or a directory listed by name. */
};

/** Bytes in a volume's path, the NUL included: what Linux takes for a path. */
#define TARN_VOLUME_PATH_SIZE 4096

/** One volume. */
typedef struct TARNMountVolInfo {           // NOLINT(modernize-use-using): C reads this too
	char mount_path[TARN_VOLUME_PATH_SIZE]; /**< Mount path or listed directory, without a trailing slash. */
	struct TARNMountVolInfo* next;          /**< Next record of an enumeration, null in the last. */
	uint32_t flags;                         /**< TARNVolumeFlag bits. */
	uint64_t free_bytes;                    /**< Bytes available to unprivileged users. */
	uint64_t total_bytes;                   /**< Capacity in bytes. */
	uint32_t healthy;                       /**< Non-zero when its root can be measured and read without an error. */
	uint32_t writable;                      /**< Non-zero when it is healthy and not mounted read-only. */
} TARNMountVolInfo;

/**
 * All volumes, in ascending byte-wise order of their mount paths.
 *
 * The arguments select, on an appliance, among kinds of volumes; here they are accepted as callers pass them (0, 1, 0).
 *
 * @return a list to be freed with TARNMountVolInfoFree(); null when the configuration or the mounts cannot be read or
 *         there is no volume (TLIBCErrGet() then tells the errno value, ENODEV for no volume)
 */
TARNMountVolInfo* TARNMountVolAllEnum(int kind, int mounted_only, int flags);

/**
 * The record of one volume.
 *
 * @param path    its mount path (or listed directory), exactly
 * @param record  receives the record; next is null
 * @return 0 on success, -1 when the path is no volume (ENODEV) or its file system doesn't answer (TLIBCErrGet() tells
 * the errno value)
 */
int TARNMountVolInfoGet(const char* path, TARNMountVolInfo* record);

/** Frees an enumeration; null is ignored. */
void TARNMountVolInfoFree(TARNMountVolInfo* list);

/**
 * Whether the volume may host service data: non-zero unless an "exclude" line names it, the file is unreadable, or
 * others could write where the data lies. Whoever makes "@tmp" on an open volume could exchange files after their
 * signature has been checked. So its root and, where they exist, "@tmp", "@tmp/data_update", "@database" and
 * "@database/autoupdate" must be directories and no links, belong to root (or the caller), and not be writable by their
 * group or by others, not even when they are sticky; nobody else may be able to rename a directory on the way to the
 * root. The place and the reason are told to syslog (LOG_WARNING).
 */
int TARNVolumeServicePolicy(const TARNMountVolInfo* record);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
