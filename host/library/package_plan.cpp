#include "host/library/package_plan.h"

#include "dataupdate/paths.h"
#include "host/terminal/downloads.h"

#include <json/value.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace tarn::ctl {

std::optional<std::uint64_t> FullPackageBytes(const dataupdate::InfoGetter& info, const std::string& id) {
	const Json::Value document = info.GetDatabaseInfo();
	const Json::Value list = document.isObject() ? document["db_list"] : Json::Value();
	const Json::Value entry = list.isObject() ? list[id] : Json::Value();
	const Json::Value size = entry.isObject() ? entry["file_size"] : Json::Value();
	return size.isUInt64() ? std::optional(size.asUInt64()) : std::nullopt;
}

void PlanChain(const Services& services, const std::string& id, int from, int to,
    const std::map<int, dataupdate::DiffInfo>& diffs) {
	std::vector<PlannedDownload> chain;
	const std::string beginning = dataupdate::TempDirPath(services.config->GetCurVolume()) + "/" + id + "_d";
	for (int version = from; from >= 0 && version < to;) {
		const auto diff = diffs.find(++version);
		if (diff == diffs.end()) {
			chain.clear();
			break;
		}
		const int bytes = std::max(diff->second.file_size, 0);
		chain.push_back({beginning + std::to_string(version), static_cast<std::uint64_t>(bytes)});
	}
	PlanDownloads(std::move(chain));
}

} // namespace tarn::ctl
