/** @file What the server's document says of the packages of an update, for those who wait for them. */
#ifndef HOST_LIBRARY_PACKAGE_PLAN_H
#define HOST_LIBRARY_PACKAGE_PLAN_H

#include "host/library/services.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace tarn::ctl {

/** The size of a database's full package, as the document announces it. */
[[nodiscard]] std::optional<std::uint64_t> FullPackageBytes(const dataupdate::InfoGetter& info, const std::string& id);

/** Tells the line of progress which diff packages lead from one version to another; none when they do not. */
void PlanChain(const Services& services, const std::string& id, int from, int to,
    const std::map<int, dataupdate::DiffInfo>& diffs);

} // namespace tarn::ctl

#endif
