/**
 * @file
 * Platform plug-in hooks: executables that run around an event.
 *
 * The hooks of a module and path are the executable regular files in "/usr/tarn/lib/hooks/<module>/<path>/" (shipped)
 * and "/usr/tarn/etc/hooks/<module>/<path>/" (the administrator's), run one after the other in the lexical order of
 * their file names. A name that stands in both directories runs from the administrator's only; one that isn't
 * executable there turns the shipped hook off. Names that begin with "." or end in "~" or hold ".dpkg-" are left out,
 * links are skipped. A hook, or a directory on the way to it from "hooks" down, that doesn't belong to root or that
 * others may write is refused, which counts as a failed hook. Each is called with the action's word ("pre",
 * "post" or "check") as its argument. The plug-in arguments reach it
 *   - on standard input, for each argument its key, "=", its value and a NUL byte (a value can be far longer than one
 *     environment string may be). TARN_HOOK_ARGS_FILE names the same file, "/proc/self/fd/0": every opening begins at
 *     its start, and means the standard input of the process that opens it. The file is in memory, can only be read,
 *     and is gone after the hook.
 *   - as environment variables of the same names, where key, "=" and value fit into 128 KiB, and all of them into half
 *     of the system's limit; the variable TARN_HOOK_OMITTED lists, separated by blanks, the keys that did not fit.
 * A hook runs in a process group of its own, in the directory "/", with a built environment (PATH, LC_ALL=C,
 * HOME=/nonexistent, TARN_HOOK_ACTION, TARN_HOOK_MODULE, TARN_HOOK_PATH), /dev/null as output and error, and no
 * descriptor of the caller. One that is still running after the time limit (TARN_HOOK_TIMEOUT_SECONDS) is killed with
 * its whole group. A daemon that a hook leaves behind in a session of its own keeps running. Failures are told to
 * syslog at LOG_ERR with the hook's path. No function throws; each may be called from any thread, a context by one
 * thread at a time.
 */
#ifndef TARNSDK_PLUGIN_H
#define TARNSDK_PLUGIN_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Seconds that one hook may take. */
#define TARN_HOOK_TIMEOUT_SECONDS 60

/** Seconds that one checking hook may take: it may have to load what it checks. */
#define TARN_HOOK_CHECK_TIMEOUT_SECONDS 600

/** An open plug-in context. */
typedef struct TLIBPluginContext TLIBPluginContext; // NOLINT(modernize-use-using): C reads this too

/** When, in relation to the event, hooks run. */
typedef enum TLIBPluginActionType { // NOLINT(modernize-use-using): C reads this too
	TLIB_PLUGIN_ACTION_PRE = 4,     /**< Before the event. */
	TLIB_PLUGIN_ACTION_POST = 5,    /**< After the event. */
} TLIBPluginActionType;

/**
 * Opens a plug-in context.
 *
 * @param module  module name: one path component
 * @param path    path below the module: relative, without ".."
 * @param handle  receives the context, or null on failure; close it with TLIBPluginExit()
 * @return 0 on success, -1 on failure
 */
int TLIBPluginSDKInit(const char* module, const char* path, TLIBPluginContext** handle);

/**
 * Sets one argument for the hooks; a later value replaces an earlier one.
 *
 * @param handle  an open context
 * @param key     name of an environment variable: letters, digits and "_"; not PATH, LC_ALL, HOME, LD_*, TARN_HOOK_*
 * @param value   any text
 * @return 0 on success, -1 on failure
 */
int TLIBPluginSetArg(TLIBPluginContext* handle, const char* key, const char* value);

/**
 * Runs the hooks for an action and waits for them. All are run, whatever an earlier one did.
 *
 * @return 0 when every hook exited with status 0 (or there is none), -1 when one failed, was killed or hung
 */
int TLIBPluginAction(TLIBPluginActionType action, TLIBPluginContext* handle);

/** What checking hooks say together. */
enum TLIBPluginVerdict {
	TLIB_PLUGIN_ACCEPTED = 0,   /**< Every hook exited with status 0, or there is none. */
	TLIB_PLUGIN_REFUSED = 1,    /**< A hook exited with another status. */
	TLIB_PLUGIN_NO_VERDICT = -1 /**< A hook could not be run to its end, or is not trusted. */
};

/** Whether a module and path have hooks, trusted or not: 1 or 0. What cannot be looked at counts as a hook. */
int TLIBPluginExists(const char* module, const char* path);

/**
 * Asks the hooks whether a change may happen, by the action's word "check", and stops at the first that does not exit
 * with status 0. Runs them as TLIBPluginAction() does, but reads what they write, and kills a hook with its group when
 * the calling thread ends, or after TARN_HOOK_CHECK_TIMEOUT_SECONDS.
 *
 * @param handle     an open context
 * @param may_go_on  asked ten times a second; a hook is killed when it returns 0; null: always
 * @param reason     receives "'<hook>': " and the first line that the refusing hook wrote to its error stream, or else
 *                   to its output, as printable ASCII of at most 300 characters; or why there is no verdict. Is cut.
 *                   Empty when the hooks accept
 * @param size       bytes in reason
 * @return a TLIBPluginVerdict
 */
// The word is C's. NOLINTNEXTLINE(modernize-redundant-void-arg)
int TLIBPluginCheck(TLIBPluginContext* handle, int (*may_go_on)(void), char* reason, size_t size);

/** Closes a context; one that isn't open (any more) is ignored, as owners may share a handle. Returns 0. */
int TLIBPluginExit(TLIBPluginContext* handle);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
