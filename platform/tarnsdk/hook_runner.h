/** @file Running hooks under a time limit, and how plug-in arguments reach them. */
#ifndef PLATFORM_TARNSDK_HOOK_RUNNER_H
#define PLATFORM_TARNSDK_HOOK_RUNNER_H

#include "base/unique_fd.h"

#include <tarnsdk/plugin.h>

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace tarn::sdk {

/** Values by key. */
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
	/** "pre" or "post". */
	std::string action;
	HookArguments arguments;
};

/**
 * Runs all hooks of the event's module and path, one after the other.
 *
 * @return whether every one was trusted, ran and exited with status 0
 */
[[nodiscard]] bool RunHooks(const HookEvent& event, const HookSettings& settings);

} // namespace tarn::sdk

#endif
