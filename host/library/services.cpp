#include "host/library/services.h"

#include "host/library/checked_info_getter.h"
#include "host/library/checked_io.h"
#include "host/library/download_limits.h"

#include <tarnsdk/volume.h>

namespace tarn::ctl {

namespace {

bool IsVolumeAvailable(const std::string& volume) {
	return TARNMountVolInfoGet(volume.c_str(), std::make_unique<TARNMountVolInfo>().get()) == 0;
}

} // namespace

Services MakeServices(Terminal& terminal) {
	const auto io = std::make_shared<CheckedIO>();
	const auto config = std::make_shared<dataupdate::ServiceConfig>(std::make_shared<dataupdate::Config>(io));
	const auto limits = std::make_shared<DownloadLimits>();
	LimitDownloads(limits);
	const auto info = std::make_shared<CheckedInfoGetter>(io, config, limits);
	const auto update = [](auto&&... arguments) { return dataupdate::Updater().UpdateAndTell(arguments...); };
	return {io, config, info, update, std::make_shared<dataupdate::Checker>(config), terminal, IsVolumeAvailable,
	    [info] { info->Hurry(); }};
}

} // namespace tarn::ctl
