#include "host/library/package_plan.h"

#include "dataupdate/paths.h"
#include "host/terminal/downloads.h"

#include <json/value.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace tarn::ctl {

std::optional<std::uint64_t> FullPackageBytes(const Services& services, const std::string& link) {
	return services.terminal.Draws() && services.package_size ? services.package_size(link) : std::nullopt;
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
