/** @file How plug-in arguments reach a hook: as a file of any length, and as environment variables where they fit. */
#ifndef PLATFORM_TARNSDK_HOOK_ARGUMENTS_H
#define PLATFORM_TARNSDK_HOOK_ARGUMENTS_H

#include "base/unique_fd.h"

#include <map>
#include <string>
#include <vector>

namespace tarn::sdk {

/** Values by key. */
using HookArguments = std::map<std::string, std::string>;

/** Whether a key can be an argument: a name for an environment variable that isn't one of the built ones. */
bool IsArgumentKey(const std::string& key);

/**
 * A sealed file in memory that holds "key=value" and a NUL for each argument. It can only be read, is shared by nobody
 * and leaves nothing behind. Without a descriptor errno tells why.
 */
UniqueFd MakeArgumentFile(const HookArguments& arguments);

/** The same file opened anew for reading, at its beginning. */
UniqueFd ReopenForReading(const UniqueFd& file);

/**
 * The arguments as "key=value" strings, as far as each fits into one string of the environment and all of them into
 * half of what the system allows, followed by TARN_HOOK_OMITTED with the keys that did not fit.
 */
std::vector<std::string> ArgumentVariables(const HookArguments& arguments);

} // namespace tarn::sdk

#endif
