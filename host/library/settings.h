/** @file The administrator's settings, before anything is done by them. */
#ifndef HOST_LIBRARY_SETTINGS_H
#define HOST_LIBRARY_SETTINGS_H

#include "dataupdate/utils.h"

namespace tarn::ctl {

/**
 * Throws CommandError when an override file is there that cannot be read, or holds a value of the wrong type. The
 * library takes its defaults instead, so that a slip of the pen would end all updates without a word, and the next
 * setting to be written would replace the file.
 */
void RequireUsableSettings(const dataupdate::IOUtils& io);

} // namespace tarn::ctl

#endif
