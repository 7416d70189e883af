/** @file This program's mask of file modes, which does not depend on its caller's. */
#ifndef HOST_OWN_UMASK_H
#define HOST_OWN_UMASK_H

#include <sys/types.h>

namespace tarn::ctl {

/**
 * Sets the mask to 022 for this program, for the library in it and for what these start: the downloader, the decoder
 * and hooks. A caller's mask of 000 would make records that all may write, and one of 077 would shut readers out. To be
 * called once, first of all.
 */
void SetOwnUmask();

/** What the mask was before SetOwnUmask(), for commands that run in the caller's name; the present one before that. */
mode_t CallersUmask();

} // namespace tarn::ctl

#endif
