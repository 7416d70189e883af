/** @file A full package that a killed publisher left without a document that names it. */
#ifndef PUBLISHER_PACKAGES_BEGUN_PACKAGE_H
#define PUBLISHER_PACKAGES_BEGUN_PACKAGE_H

#include "publisher/packages/package.h"

#include <string>

namespace tarn::publisher {

/** When something is published: now, or what SOURCE_DATE_EPOCH says. Throws UsageError and PublishError. */
[[nodiscard]] int TimeOfPublication();

/**
 * The time with which a publisher makes the bytes of a package again that is there already: the package's own, unless
 * SOURCE_DATE_EPOCH says another. Throws PublishError for a package that is none of this version.
 */
[[nodiscard]] int TimeOfBegun(
    const PackageReader& reader, const std::string& path, const std::string& id, int version, int now);

/**
 * Throws PublishError unless a package that is there already has the same bytes as the new one: devices or caches may
 * have it.
 */
void RequireSameAsBegun(const std::string& path, const std::string& new_package, int version);

} // namespace tarn::publisher

#endif
