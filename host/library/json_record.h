/** @file The host's own records of a few values in JSON. */
#ifndef HOST_LIBRARY_JSON_RECORD_H
#define HOST_LIBRARY_JSON_RECORD_H

#include <json/value.h>

#include <string>

namespace tarn::ctl {

/** A record of the host's, whatever it holds; null when there is none, or none that can be read as JSON. */
[[nodiscard]] Json::Value ReadJsonRecord(const std::string& path);

} // namespace tarn::ctl

#endif
