/**
 * @file
 * Platform plug-in hooks: executables that run around an event.
 *
 * The hooks of a module and path are the executable regular files in "/usr/tarn/lib/hooks/<module>/<path>/" (shipped)
 * and "/usr/tarn/etc/hooks/<module>/<path>/" (the administrator's), run one after the other in the lexical order of
 * their file names; a name that stands in both directories runs from the administrator's only. Each is called with the
 * action's word ("pre" or "post") as its argument. The plug-in arguments reach it
 *   - on standard input and in the file named by TARN_HOOK_ARGS_FILE: for each argument its key, "=", its value and a
 *     NUL byte (a value can be far longer than one environment string may be), and
 *   - as environment variables of the same names, where key, "=" and value fit into 128 KiB; the variable
 *     TARN_HOOK_OMITTED lists, separated by blanks, the keys that did not fit.
 * A hook runs in a process group of its own with a built environment (PATH, LC_ALL=C, HOME=/nonexistent,
 * TARN_HOOK_ACTION, TARN_HOOK_MODULE, TARN_HOOK_PATH) and no descriptor of the caller. One that is still running
 * after the time limit (TARN_HOOK_TIMEOUT_SECONDS) is killed with its whole group. A daemon that a hook leaves
 * behind in a session of its own keeps running. Failures are told to syslog at LOG_ERR with the hook's path.
 */
#ifndef TARNSDK_PLUGIN_H
#define TARNSDK_PLUGIN_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Seconds that one hook may take. */
#define TARN_HOOK_TIMEOUT_SECONDS 60

typedef struct TLIBPluginContext TLIBPluginContext;

/** When, in relation to the event, hooks run. */
typedef enum TLIBPluginActionType {
	TLIB_PLUGIN_ACTION_PRE = 4,
	TLIB_PLUGIN_ACTION_POST = 5,
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

/** Sets one argument for the hooks; a later value replaces an earlier one. Returns 0 on success, -1 on failure. */
int TLIBPluginSetArg(TLIBPluginContext* handle, const char* key, const char* value);

/**
 * Runs the hooks for an action and waits for them. All are run, whatever an earlier one did.
 *
 * @return 0 when every hook exited with status 0 (or there is none), -1 when one failed, was killed or hung
 */
int TLIBPluginAction(TLIBPluginActionType action, TLIBPluginContext* handle);

/** Closes a context. Returns 0. */
int TLIBPluginExit(TLIBPluginContext* handle);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
