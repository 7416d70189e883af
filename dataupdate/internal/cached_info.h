/** @file The cached copy of the server's document. */
#ifndef DATAUPDATE_INTERNAL_CACHED_INFO_H
#define DATAUPDATE_INTERNAL_CACHED_INFO_H

#include "dataupdate/utils.h"

#include <functional>
#include <string>

namespace tarn::dataupdate {

/** Downloads the document unless the cached copy may be used, for GetFreshInfo(), under whose lock it is called. */
void RenewCachedInfo(const IOUtils& io, const std::function<std::string()>& make_url);

} // namespace tarn::dataupdate

#endif
