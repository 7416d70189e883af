/** @file What the server's document says of the packages of an update, for those who wait for them. */
#ifndef HOST_LIBRARY_PACKAGE_PLAN_H
#define HOST_LIBRARY_PACKAGE_PLAN_H

#include "host/library/services.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace tarn::ctl {

/** The size of a full package, as the server tells it; not asked for where no terminal shows it. */
[[nodiscard]] std::optional<std::uint64_t> FullPackageBytes(const Services& services, const std::string& link);

/** Tells the line of progress which diff packages lead from one version to another; none when they do not. */
void PlanChain(const Services& services, const std::string& id, int from, int to,
    const std::map<int, dataupdate::DiffInfo>& diffs);

} // namespace tarn::ctl

#endif
