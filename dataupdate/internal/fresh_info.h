/**
 * @file
 * The server's document: cached, or fetched when the cache is too old.
 */
#ifndef DATAUPDATE_INTERNAL_FRESH_INFO_H
#define DATAUPDATE_INTERNAL_FRESH_INFO_H

#include "dataupdate/export.h"
#include "dataupdate/utils.h"

#include <json/value.h>

#include <functional>
#include <string>

namespace tarn::dataupdate {

/**
 * The server's whole document, as InfoGetter::GetDatabaseInfo() gives it; for a host that cannot wait for as long.
 *
 * "/var/cache/data_update/database_info.json" is read when it is at most 3600 seconds old and its download was not
 * killed, and is downloaded before it otherwise; both happen under "/run/data_update/fresh_info.lock". Whoever holds
 * that lock may be downloading, and the cached document is then cut off.
 *
 * @param make_url      gives the link; asked only before a download
 * @param lock_seconds  how long to wait for the lock
 *
 * Throws "Fail to create dir <path>", FileLock's errors, what make_url throws, and the errors of IOUtils::Download()
 * and IOUtils::ReadJson(). After a failed download there is no document, or the old one, which is as old as before.
 */
TARNDBUD_EXPORT Json::Value GetFreshInfo(
    const IOUtils& io, const std::function<std::string()>& make_url, unsigned long lock_seconds);

} // namespace tarn::dataupdate

#endif
