#include "host/commands/commands.h"
#include "host/commands/report.h"
#include "host/library/checked_info_getter.h"

namespace tarn::ctl {

namespace {

ExitCode Run(const Services& services, const Options& options) {
	const bool dropped = DropCachedDocument();
	Json::Value object(Json::objectValue);
	object["dropped"] = dropped;
	Answer(services, options,
	    dropped ? "The server's document was dropped; the next command asks for it again.\n"
	            : "There is no document to drop; the next command asks the server.\n",
	    object);
	return kDone;
}

} // namespace

const Command kRefreshCommand = {"refresh", "Drop the cached server document",
    "The document is otherwise used for an hour, even if it is a login page that a network sent in its place.",
    {kLocked}, true, false, DeclareJsonObject, Run};

} // namespace tarn::ctl
