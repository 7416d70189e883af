/** @file Telling other services that a database is about to change and has changed. */
#ifndef DATAUPDATE_HOOK_H
#define DATAUPDATE_HOOK_H

#include "dataupdate/export.h"
#include "dataupdate/file_list.h"

#include <tarnsdk/plugin.h>

#include <set>
#include <string>

namespace tarn::dataupdate {

/**
 * Runs the plug-in hooks of module "database_autoupdate" and path "database_autoupdate/version_change". They are told
 * the database ("DATABASE"), the changed files ("CHANGED_FILES", joined by ":" without escaping, absolute paths after a
 * full update or a fix) and the delimiter ("DELIMITER").
 *
 * Hooks advise: every failure is logged at LOG_ERR and returned as false, none is thrown. One thread uses an object.
 */
class TARNDBUD_EXPORT UpdateHook {
public:
	/** Opens the plug-in context and sets the arguments. */
	UpdateHook(const std::string& id, const std::set<std::string>& files);
	/** The same for the names of a list, which is given up, and comes first so that "{}" stays a set. */
	UpdateHook(FileList files, const std::string& id);
	/** Copies share the source's context, and each of them closes it; copy only what will not be destroyed twice. */
	UpdateHook(const UpdateHook& other);
	/** Closes the own context and shares the other's, likewise. */
	UpdateHook& operator=(const UpdateHook& other);
	/** Closes the context. */
	virtual ~UpdateHook();

	/** Runs the hooks before the change. */
	virtual bool ExecPre();
	/** Runs the hooks after the change. */
	virtual bool ExecPost();
	/** Closes the context; to be called once, since the handle keeps its value. */
	virtual void Clear();

	/** Sets one argument of the hooks. */
	bool SetEnv(const std::string& key, const std::string& value);
	/** Runs the hooks for an action. */
	bool ExecAction(TLIBPluginActionType action);
	/** The paths in order, with ":" between them. */
	static std::string JoinFiles(const std::set<std::string>& files);

private:
	void Open(const std::string& id, const std::string& joined_files);

	TLIBPluginContext* handle_ = nullptr;
	std::string module_;
	std::string path_;
};

} // namespace tarn::dataupdate

#endif
