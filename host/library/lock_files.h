/** @file The lock files that nobody but root may open, since whoever can open a lock file can hold its lock. */
#ifndef HOST_LIBRARY_LOCK_FILES_H
#define HOST_LIBRARY_LOCK_FILES_H

#include "host/library/services.h"

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

} // namespace tarn::ctl

#endif
