/** @file The process of a hook: how it is started and given its arguments, and how it is ended. */
#ifndef PLATFORM_TARNSDK_HOOK_PROCESS_H
#define PLATFORM_TARNSDK_HOOK_PROCESS_H

#include "base/process.h"
#include "base/unique_fd.h"
#include "platform/tarnsdk/hook_runner.h"

#include <sys/types.h>

namespace tarn::sdk {

/** What all hooks of an event have in common: everything but the path and the standard input. */
process::Program HookProgram(const HookEvent& event);

/**
 * A sealed file in memory that holds "key=value" and a NUL for each argument. It can only be read, is shared by nobody
 * and leaves nothing behind. Without a descriptor errno tells why.
 */
UniqueFd MakeArgumentFile(const HookArguments& arguments);

/** The same file opened again for reading, at its beginning. */
UniqueFd ReopenForReading(const UniqueFd& file);

/** Waits until the process has ended; false when it is still running after the limit. */
[[nodiscard]] bool EndsWithin(const UniqueFd& process, std::chrono::milliseconds limit);

/**
 * Kills a hook that has not been reaped and its process group, even when it has moved itself to another one, and waits
 * for its end if it can be watched. False when it hangs in the kernel, and is left to itself.
 */
[[nodiscard]] bool KillGroup(pid_t leader, const UniqueFd& process);

} // namespace tarn::sdk

#endif
