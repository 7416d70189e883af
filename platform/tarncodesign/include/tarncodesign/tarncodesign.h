/**
 * @file
 * Platform code signing: extraction of signed archives.
 *
 * A signed archive is one file: a signed head that holds the digest of every frame of the body, and the body, a tar
 * compressed frame by frame. Opening checks the signature and every frame before anything is parsed; extracting checks
 * each frame again as it is read into private memory, so that a file rewritten between or during the two steps never
 * yields a byte that was not signed. docs/formats.md describes the bytes.
 *
 * A signature says who made a package, not which package was asked for. A data-update package also says in its signed
 * metadata which database it holds, which version, and whether all of it or the step from the version before; opening
 * compares that with the file's own name, which whoever asks for a package chooses.
 *
 * Trusted public keys are the files ending in ".pub" (PEM, Ed25519) in "/usr/tarn/etc/codesign/<key type>", any number
 * of them, so that keys can be rotated. Directory and files must belong to root or to the calling user, be no links,
 * and not be writable by anybody else; a file that breaks this, or holds something else, is skipped with a warning.
 *
 * A context is used by one thread. Order of calls: init, open, extract, free. No function throws; every failure is one
 * line in syslog at LOG_ERR, with the archive's path and the reason. Extracting runs up to two more threads for as long
 * as it lasts, with all signals blocked. Memory stays under 20 MB whatever the archive's size. Nothing is synced: the
 * caller syncs the file system once, before it relies on what was extracted.
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

/** Kinds of tarnarchive_refusal(). */
enum tarnarchive_refusal_kind {
	TARNARCHIVE_NO_REFUSAL = 0,
	TARNARCHIVE_REFUSED = 1, /**< Missing, damaged, not signed by a trusted key, or with content that is refused. */
	TARNARCHIVE_NOT_ASKED_FOR = 2 /**< Whole and signed, but not the package that the file's name asks for. */
};

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
 * For TARNARCHIVE_KEYTYPE_DATA_UPDATE the signed metadata must name what the last component of the path asks for:
 * "<id>_v<version>" the full package of that version, "<id>_d<version>" the diff package to that version from the
 * version before it, "<id>_debug" a full package of any version. A package under another name, of another database,
 * version or kind, or without metadata that tells, is refused with a line that says what is asked for and what the
 * package is. So nobody who can change a download link or the answer to it can bring in an older package, a package of
 * another database, or a diff package in place of the full one.
 *
 * @param context  from tarnarchive_init()
 * @param package  path of the archive
 * @param key_type  selects the directory of trusted keys, and must be the type that the archive was signed for
 * @return true when the archive is whole, signed by a trusted key, and the one that is asked for
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

/**
 * Why the calling thread's last tarnarchive_init(), tarnarchive_open_with_keytype() or tarnarchive_extract_multiple()
 * failed, for a program that tells people. The same text goes to syslog.
 *
 * @param reason  set to the text, which is empty after a success, is cut after 1,023 bytes, and lasts until the
 * thread's next call of one of these functions; null when it is not wanted
 * @return a tarnarchive_refusal_kind
 */
int tarnarchive_refusal(const char** reason);

/**
 * How large a package says it is, for showing the progress of its download: the first 48 bytes tell. Nothing has been
 * checked, so nothing else may depend on it.
 *
 * @param package  path of the file, which may not be whole yet
 * @param bytes    receives the size
 * @return whether the file begins as a package
 */
bool tarnarchive_announced_size(const char* package, unsigned long long* bytes);

/**
 * Is told of a data-update package that is whole, signed and the one that was asked for, before it counts as open.
 *
 * @param data      as given to tarnarchive_observe()
 * @param package   the path
 * @param metadata  the signed metadata: a JSON object as docs/formats.md describes it
 * @return null to let the package in; or a reason, which is copied, to refuse it as TARNARCHIVE_NOT_ASKED_FOR
 */
// NOLINTNEXTLINE(modernize-use-using): C reads this too
typedef const char* (*tarnarchive_observer)(void* data, const char* package, const char* metadata);

/**
 * Sets the process's one observer, called by the thread that opens a package. It must not open packages or call this
 * function itself. When this function has returned, the observer before it is no longer running and is not called
 * again.
 *
 * @param observer  null for none
 * @param data      handed to each call of the observer; must live as long as the observer is set
 */
void tarnarchive_observe(tarnarchive_observer observer, void* data);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
