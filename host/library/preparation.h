/** @file What must be in order before anything is done: the lock files, the settings, and where data lies. */
#ifndef HOST_LIBRARY_PREPARATION_H
#define HOST_LIBRARY_PREPARATION_H

#include "dataupdate/utils.h"
#include "host/library/services.h"

#include <string>
#include <vector>

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

/**
 * Throws CommandError when an override file is there that cannot be read, or holds a value of the wrong type. The
 * library takes its defaults instead, so that a slip of the pen would end all updates without a word, and the next
 * setting to be written would replace the file.
 */
void RequireUsableSettings(const dataupdate::IOUtils& io);

/** The names of the settings of data_update.conf, all in its one section. */
std::vector<std::string> ServiceSettings();
/** The names of the settings of a database in databases.conf. */
std::vector<std::string> DatabaseSettings();

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

} // namespace tarn::ctl

#endif
