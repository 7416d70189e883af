/** @file The library's objects that commands work with; each can be replaced by a double. */
#ifndef HOST_LIBRARY_SERVICES_H
#define HOST_LIBRARY_SERVICES_H

#include "dataupdate/project_lock.h"
#include "dataupdate/service_config.h"
#include "dataupdate/update.h"
#include "dataupdate/updater.h"
#include "dataupdate/utils.h"
#include "host/terminal/terminal.h"

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace tarn::ctl {

struct Services {
	std::shared_ptr<dataupdate::IOUtils> io;
	std::shared_ptr<dataupdate::ServiceConfig> config;
	std::shared_ptr<dataupdate::InfoGetter> info;
	/** Updater::UpdateAndTell(). */
	std::function<dataupdate::UpdateResult(const std::string& id, const dataupdate::DatabaseStatus& status,
	    const dataupdate::RemoteInfo& remote, const std::map<int, dataupdate::DiffInfo>& diffs,
	    const std::string& volume, const std::string& install_prefix, const std::string& root_directory)>
	    update;
	std::shared_ptr<dataupdate::Checker> checker;
	Terminal& terminal;
	/** Whether a volume is mounted and answers; if not, TLIBCErrGet() tells why. */
	std::function<bool(const std::string& volume)> is_available;
	/** Has the server's document come at once or not at all from now on; nothing to call in a double. */
	std::function<void()> hurry = nullptr;
};

/** The real ones. */
Services MakeServices(Terminal& terminal);

} // namespace tarn::ctl

#endif
