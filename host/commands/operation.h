/** @file What every command has in common that brings a database to a version. */
#ifndef HOST_COMMANDS_OPERATION_H
#define HOST_COMMANDS_OPERATION_H

#include "host/commands/report.h"
#include "host/library/operation.h"
#include "host/library/services.h"

#include <json/value.h>

#include <functional>
#include <string>

namespace tarn::ctl {

/**
 * Finishes the replacements that were killed, of whichever database, and reports them; clears the temporary area of
 * what killed runs left; then does the work. Records how all that went as RunRecorded() does.
 */
ExitCode RunOperation(const Services& services, Report& report, const std::string& id, const char* operation,
    const std::function<ExitCode()>& work);

/** The end of a result that names the directory with the files that nothing uses any more; empty without such files. */
[[nodiscard]] std::string DescribeLeftBehind(const Outcome& outcome);

/** The end of a result that says that an older version was installed than was there; empty when it was none. */
[[nodiscard]] std::string DescribeWayBack(const Outcome& outcome);
/** The same two for a result as an object. */
void AddWayBack(const Outcome& outcome, Json::Value& result);

} // namespace tarn::ctl

#endif
