/**
 * @file
 * Whether others than root can decide what is written to a volume, or what is removed from it.
 *
 * Whoever makes "@tmp" on a volume whose root is open to all can exchange files between the check of a signature and
 * the installation; whoever plants a link there has root empty a directory elsewhere. A place is safe when nobody but
 * root (or the calling user) can rename, replace or fill anything on the way to it. Others cannot make a safe place
 * unsafe, so that what is found holds until root itself changes it.
 */
#ifndef BASE_VOLUME_SAFETY_H
#define BASE_VOLUME_SAFETY_H

#include <optional>
#include <string>

namespace tarn {

struct UnsafePlace {
	std::string path;
	/** The rest of a sentence that begins with the path: "belongs to another user". */
	std::string reason;
};

/**
 * Looks at a directory and at all on the way to it. The directory itself must be a directory and no link, belong to
 * root or to the caller, and not be writable by its group or by others. Directories on the way may be writable by
 * others when they are sticky, as "/tmp" is; links on the way are followed when they are root's or the caller's. What
 * is missing is safe: nobody else can make it. Each step is opened and judged by its descriptor, so that nothing is
 * exchanged between. Returns the first unsafe place of an absolute path, no value when all is safe.
 */
[[nodiscard]] std::optional<UnsafePlace> FindUnsafePlace(const std::string& directory);

/**
 * The same for a volume's root and, as far as they exist, "@tmp/data_update" and "@database/autoupdate" on it. The last
 * name may also be a file, which a move of databases replaces.
 */
[[nodiscard]] std::optional<UnsafePlace> FindUnsafePlaceOnVolume(const std::string& volume);

} // namespace tarn

#endif
