/** @file What a host adds to the settings of downloads. */
#ifndef PLATFORM_TARNCORE_DOWNLOAD_LIMITER_H
#define PLATFORM_TARNCORE_DOWNLOAD_LIMITER_H

#include "platform/tarncore/download.h"

#include <tarncore/tarncore.h>

#include <string>

namespace tarn::core {

/** Asks the host, if it has set a function to ask. */
TLIBCDownloadLimits AskForLimits(const Download& download);

/** Sets what TLIBCDownloadFailureGet() returns in this thread. */
void KeepDownloadFailure(const std::string& text);

} // namespace tarn::core

#endif
