/** @file What must be in order before anything is done: the lock files and the administrator's settings. */
#ifndef HOST_LIBRARY_PREPARATION_H
#define HOST_LIBRARY_PREPARATION_H

#include "dataupdate/utils.h"
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

/**
 * Throws CommandError when an override file is there that cannot be read, or holds a value of the wrong type. The
 * library takes its defaults instead, so that a slip of the pen would end all updates without a word, and the next
 * setting to be written would replace the file.
 */
void RequireUsableSettings(const dataupdate::IOUtils& io);

} // namespace tarn::ctl

#endif
