#include "checked_io.h"

#include <dataupdate/paths.h>
#include <dataupdate/update_error.h>

namespace tarn::ctl {

Json::Value CheckedIO::ReadJson(const std::string& path) const {
	if (path == dataupdate::kCachedInfo && GetSize(path) > kLargestDocument) {
		throw dataupdate::UpdateError("Fail to decode: " + path);
	}
	return IOUtils::ReadJson(path);
}

} // namespace tarn::ctl
