/** @file Running hooks under a time limit, and how plug-in arguments reach them. */
#ifndef PLATFORM_TARNSDK_HOOK_RUNNER_H
#define PLATFORM_TARNSDK_HOOK_RUNNER_H

#include <tarnsdk/plugin.h>

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace tarn::sdk {

using HookArguments = std::map<std::string, std::string>;

/** Whether a key can be an argument: a name for an environment variable that isn't one of the built ones. */
bool IsArgumentKey(const std::string& key);

/** Where hooks lie, whom they must belong to, and how long one may take. */
struct HookSettings {
	std::vector<std::string> roots = {"/usr/tarn/lib/hooks", "/usr/tarn/etc/hooks"};
	uid_t owner = 0;
	std::chrono::milliseconds time_limit = std::chrono::seconds(TARN_HOOK_TIMEOUT_SECONDS);
};

/** What is told to hooks. */
struct HookEvent {
	std::string module;
	std::string path;
	/** "pre", "post" or "check". */
	std::string action;
	HookArguments arguments;
};

/** Runs all hooks of the event's module and path; tells whether each was trusted, ran and exited with status 0. */
[[nodiscard]] bool RunHooks(const HookEvent& event, const HookSettings& settings);

/** What checking hooks say. */
struct Verdict {
	TLIBPluginVerdict verdict = TLIB_PLUGIN_ACCEPTED;
	std::string reason; ///< As TLIBPluginCheck() gives it; empty for an acceptance.
};

/**
 * Asks the hooks of the event's module and path, one after the other, up to the first that does not accept.
 *
 * @param may_go_on  asked ten times a second; after a no the hook is killed, and there is no verdict
 */
[[nodiscard]] Verdict CheckByHooks(
    const HookEvent& event, const HookSettings& settings, const std::function<bool()>& may_go_on);

} // namespace tarn::sdk

#endif
