/** @file What must be in order before anything is done: lock files, the temporary area, where data lies. */
#ifndef HOST_LIBRARY_PREPARATION_H
#define HOST_LIBRARY_PREPARATION_H

#include "host/library/services.h"

#include <optional>
#include <string>

namespace tarn::ctl {

/**
 * Makes the lock files of updates, of the server's document and of the settings, with mode 0600, before the library
 * makes them with 0644: an ordinary user who held one would hold off every update. Files that are there get that mode;
 * none is ever replaced, because whoever holds it would then exclude nobody. The readers' lock files are not touched:
 * readers are ordinary users.
 *
 * Throws CommandError when the directory or a file is not root's own, or others may write to the directory.
 */
void PrepareLockFiles(const Services& services);

/** What is wrong with a volume, as a sentence without its end: the place, and why it is not safe. Empty when it is
 * safe. */
std::string VolumeProblem(const std::string& volume);

/** Throws CommandError when a volume is not safe. */
void RequireSafeVolume(const std::string& volume);

/**
 * Throws CommandError when the volume in use or a database's directory is not safe. Databases on the root file system
 * need the volume as well: their packages are unpacked on it. To be called under the locks, right before files change:
 * what is safe then stays safe, because only root could change it.
 */
void RequireSafePlaces(const Services& services, const std::string& id);

/** The version of what a killed run had ready for this database where it is installed now, whatever a hold says. */
[[nodiscard]] std::optional<int> FindPreparedEvenHeld(const Services& services, const std::string& id);

/**
 * Removes what killed runs left in the temporary area of the volume in use, when that is mounted and safe: not while
 * an update runs, and not while a replacement can be finished from the area. A failure is logged only, because
 * nothing in the area is used again.
 */
void ClearTemporaryArea(const Services& services);

/** Throws the failure of having no volume when there is none. */
void RequireVolume(const Services& services);
/** Throws as well when others could change what is written for a database. */
void RequireVolumeFor(const Services& services, const std::string& id);
/**
 * Throws when the volume in use went away without notice: what would be installed then lay on the file system below its
 * mount point, and would be hidden when it comes back.
 */
void RequireNoLostVolume(const Services& services);

/**
 * What is wrong with each mounted volume that is not safe, one after the other, for whoever was told that no volume is
 * suitable; empty when all are safe.
 *
 * @param exclude  a volume that does not matter
 */
std::string UnsafeVolumes(const std::string& exclude);

/** Why a safe volume is not suitable, as a sentence without its end. */
[[nodiscard]] std::string WhyUnsuitable(const Services& services, const std::string& volume);

/**
 * Each safe volume and why it is not suitable, or why there is none; a sentence without its end.
 *
 * @param exclude  a volume that does not matter
 */
[[nodiscard]] std::string WhyNoOther(const Services& services, const std::string& exclude);

/** Why a path is no volume, as a sentence without its end. */
[[nodiscard]] std::string WhyNoVolume(const std::string& path);

} // namespace tarn::ctl

#endif
