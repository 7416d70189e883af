#include "host/library/volume_hook.h"

#include "dataupdate/paths.h"

#include <syslog.h>

namespace tarn::ctl {

namespace {

constexpr char kModule[] = "database_autoupdate";
constexpr char kPath[] = "database_autoupdate/volume_change";

} // namespace

VolumeHook::VolumeHook(const std::string& from, const std::string& to) {
	TLIBPluginContext* context = nullptr;
	if (TLIBPluginSDKInit(kModule, kPath, &context) != 0) {
		syslog(LOG_ERR, "The hooks about the change of the volume cannot be run");
		return;
	}
	context_.reset(context);
	Set("FROM", dataupdate::MainDirPath(from));
	Set("TO", dataupdate::MainDirPath(to));
	Set("FROM_VOLUME", from);
	Set("TO_VOLUME", to);
}

void VolumeHook::Set(const char* key, const std::string& value) {
	if (TLIBPluginSetArg(context_.get(), key, value.c_str()) != 0) {
		syslog(LOG_ERR, "The hooks about the change of the volume cannot be told %s", key);
	}
}

void VolumeHook::Exec(TLIBPluginActionType action) {
	if (context_ != nullptr && TLIBPluginAction(action, context_.get()) != 0) {
		syslog(LOG_ERR, "A hook %s the change of the volume failed",
		    action == TLIB_PLUGIN_ACTION_PRE ? "before" : "after");
	}
}

} // namespace tarn::ctl
