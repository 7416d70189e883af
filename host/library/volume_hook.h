/** @file Telling other services that the databases are about to move to another volume and have moved. */
#ifndef HOST_LIBRARY_VOLUME_HOOK_H
#define HOST_LIBRARY_VOLUME_HOOK_H

#include <tarnsdk/plugin.h>

#include <memory>
#include <string>

namespace tarn::ctl {

/**
 * The plug-in hooks of module "database_autoupdate" and path "database_autoupdate/volume_change". They are told both
 * directories of the databases ("FROM", "TO") and both volumes ("FROM_VOLUME", "TO_VOLUME"). They advise: every failure
 * is logged, and none stops a move. To be used while no update and no reader runs.
 */
class VolumeHook {
public:
	/** Opens the plug-in context and sets the arguments. */
	VolumeHook(const std::string& from, const std::string& to);

	void ExecPre() { Exec(TLIB_PLUGIN_ACTION_PRE); }
	/** To be called only after a move that succeeded. */
	void ExecPost() { Exec(TLIB_PLUGIN_ACTION_POST); }

private:
	struct Closer {
		void operator()(TLIBPluginContext* context) const { TLIBPluginExit(context); }
	};

	void Set(const char* key, const std::string& value);
	void Exec(TLIBPluginActionType action);

	std::unique_ptr<TLIBPluginContext, Closer> context_;
};

} // namespace tarn::ctl

#endif
