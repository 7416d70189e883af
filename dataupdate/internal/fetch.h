/** @file Downloads that come from the host's source. */
#ifndef DATAUPDATE_INTERNAL_FETCH_H
#define DATAUPDATE_INTERNAL_FETCH_H

#include "dataupdate/download_source.h"

#include <memory>
#include <string>

namespace tarn::dataupdate {

/** Null as long as everything is downloaded. */
[[nodiscard]] std::shared_ptr<const DownloadSource> CurrentSource();

/**
 * Fetches a URL into a file, which is new afterwards, or gone when that fails. Leaves a twentieth of the file system
 * free, as downloads do, and lets itself be ended early.
 */
void FetchFile(const DownloadSource& source, const std::string& output_path, const std::string& url);

} // namespace tarn::dataupdate

#endif
