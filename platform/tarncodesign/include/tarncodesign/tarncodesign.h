/**
 * @file
 * Platform code signing: extraction of signed archives.
 *
 * A signed archive is one file: a signed head that holds the digest of every chunk of the body, and the body, a tar
 * compressed with zstd. Opening checks the signature and every chunk before anything is parsed; extracting checks each
 * chunk again as it is read into private memory, so that a file rewritten between or during the two steps never
 * yields a byte that was not signed. docs/formats.md describes the bytes.
 *
 * Trusted public keys are the files "/usr/tarn/etc/codesign/<key type>/*.pub" (PEM, Ed25519), any number of them, so
 * that keys can be rotated. A context is used by one thread. No function throws; failures are told to syslog at
 * LOG_ERR, with the archive's path and the reason.
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
 * Opens an archive and checks all of it: head, signature by a trusted key, length, every chunk. Writes nothing.
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
 * (one planted by an earlier archive included), devices, FIFOs, sockets, set-id bits, more entries or bytes than the
 * signed head declares. An existing file is replaced, not written into. After a failure members already extracted
 * remain; the caller clears the destination.
 *
 * @param context  opened with tarnarchive_open_with_keytype()
 * @param members  null-terminated list of member names to extract, or null for all
 * @param mode     TARNARCHIVE_EXTRACT_ALL
 */
bool tarnarchive_extract_multiple(struct tarnarchive* context, const char* const* members, int mode);

/** Closes the archive and frees the context; null is ignored. */
void tarnarchive_free(struct tarnarchive* context);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
