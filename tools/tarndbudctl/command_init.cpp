#include "commands.h"

#include <dataupdate/volume_handler.h>

namespace tarn::ctl {

namespace {

/** Does what the initialisation does, which logs its failures, and lets the failure be seen. */
void AdoptVolume(const Services& services) {
	const dataupdate::VolumeHandler handler(services.config);
	const std::string volume = handler.FindSuitableVolume("");
	handler.CreateDirectories(handler.GetMainDirPath(volume));
	services.config->SetCurVolume(volume);
}

} // namespace

ExitCode RunInit(const Services& services, const Options& /*options*/) {
	dataupdate::InitService();
	if (services.config->GetCurVolume().empty()) {
		AdoptVolume(services);
	}
	services.terminal.Say("The databases are on " + services.config->GetCurVolume() + ".\n");
	return kDone;
}

} // namespace tarn::ctl
