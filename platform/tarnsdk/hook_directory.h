/** @file Finding the hooks of a module and path, and deciding which of them may be trusted. */
#ifndef PLATFORM_TARNSDK_HOOK_DIRECTORY_H
#define PLATFORM_TARNSDK_HOOK_DIRECTORY_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace tarn::sdk {

struct HookList {
	/** Paths in the order in which the hooks run. */
	std::vector<std::string> paths;
	/** Whether every directory and hook could be read and was trusted; otherwise syslog tells which was not. */
	bool complete = true;
};

/**
 * Finds hooks.
 *
 * @param roots    directories of hooks by ascending precedence: a name in a later one hides the same name in earlier
 * ones
 * @param subpath  path below each root; a root that doesn't hold it has no hooks
 * @param owner    the only owner that is trusted, for directories from the root down and for hooks
 */
[[nodiscard]] HookList FindHooks(const std::vector<std::string>& roots, const std::string& subpath, uid_t owner);

} // namespace tarn::sdk

#endif
