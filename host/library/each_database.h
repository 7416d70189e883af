/** @file The same operation on several databases. */
#ifndef HOST_LIBRARY_EACH_DATABASE_H
#define HOST_LIBRARY_EACH_DATABASE_H

#include "host/library/failure.h"
#include "host/library/services.h"

#include <functional>
#include <string>
#include <vector>

namespace tarn::ctl {

using DatabaseOperation = std::function<ExitCode(const std::string& id)>;

/**
 * Runs an operation on each database. When it fails on one, the others are tried all the same, unless the program has
 * been asked to end. Returns the code of the first that didn't end with kDone.
 */
[[nodiscard]] ExitCode ForEachDatabase(const Services& services, const std::vector<std::string>& ids,
    const DatabaseOperation& operation,
    const std::function<void(const std::string& id, const Failure& failure)>& complain);

/** The library's loop over the scheduled databases, which ends at the first failure by throwing it. */
[[nodiscard]] ExitCode ForEachScheduled(const Services& services, const DatabaseOperation& operation);

} // namespace tarn::ctl

#endif
