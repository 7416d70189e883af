/**
 * @file
 * Platform code signing: extraction of signed archives.
 *
 * A signed archive is one file: a signed head that holds the digest of every chunk of the body, and the body, a tar
 * compressed with zstd. Opening checks the signature and every chunk before anything is parsed; extracting checks each
 * chunk again as it is read into private memory, so that a file rewritten between or during the two steps never
 * yields a byte that was not signed. docs/formats.md describes the bytes.
 *
 * Trusted public keys are the files ending in ".pub" (PEM, Ed25519) in "/usr/tarn/etc/codesign/<key type>", any number
 * of them, so that keys can be rotated. Directory and files must belong to root or to the calling user, be no links,
 * and not be writable by anybody else; a file that breaks this, or holds something else, is skipped with a warning.
 *
 * A context is used by one thread. Order of calls: init, open, extract, free. No function throws; every failure is one
 * line in syslog at LOG_ERR, with the archive's path and the reason. Extracting runs one more thread for as long as it
 * lasts, with all signals blocked. Memory stays under 20 MB whatever the archive's size. Nothing is synced: the caller
 * syncs the file system once, before it relies on what was extracted.
 */
#ifndef TARNCODESIGN_TARNCODESIGN_H
#define TARNCODESIGN_TARNCODESIGN_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

struct tarnarchive;

/** Key type of data-update packages. */
#define TARNARCHIVE_KEYTYPE_DATA_UPDATE 6

/** Extraction mode: every member, attributes reset to safe ones. */
#define TARNARCHIVE_EXTRACT_ALL 4

/**
 * A context that extracts into a directory.
 *
 * @param destination  existing directory
 * @return the context, to be freed with tarnarchive_free(); null when the destination is no directory
 */
struct tarnarchive* tarnarchive_init(const char* destination);

/**
 * Opens an archive and checks all of it: head, length, signature by a trusted key, every chunk. Writes nothing. The
 * archive must be a regular file and no link. An archive that was open before in this context is closed.
 *
 * @param context  from tarnarchive_init()
 * @param package  path of the archive
 * @param key_type  selects the directory of trusted keys, and must be the type that the archive was signed for
 * @return true when the archive is whole and signed by a trusted key
 */
bool tarnarchive_open_with_keytype(struct tarnarchive* context, const char* package, int key_type);

/**
 * Extracts the opened archive below the destination; never outside of it, whatever the archive holds.
 *
 * Refused with false: absolute names, "..", links that lead out, names that pass through a link in the destination
 * (one planted by an earlier archive included), devices, FIFOs, sockets, set-id and sticky bits, more or fewer members
 * or bytes than the signed head declares, more than 4,000,000 members or 256 GiB. An existing file or link is
 * replaced, not written into; a directory is replaced only when it is empty. Files get mode 0644 or 0755, directories
 * 0755, the caller's owner and the present time. After a failure members already extracted remain; the caller clears
 * the destination.
 *
 * @param context  opened with tarnarchive_open_with_keytype()
 * @param members  null-terminated list of member names to extract, or null for all; a name that the archive lacks is
 *                 a failure
 * @param mode     TARNARCHIVE_EXTRACT_ALL
 * @return true when every member was extracted; may be called again
 */
bool tarnarchive_extract_multiple(struct tarnarchive* context, const char* const* members, int mode);

/** Closes the archive and frees the context; null is ignored. */
void tarnarchive_free(struct tarnarchive* context);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
