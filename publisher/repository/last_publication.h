/** @file What the last publication, or one that was killed, says about the next one. */
#ifndef PUBLISHER_REPOSITORY_LAST_PUBLICATION_H
#define PUBLISHER_REPOSITORY_LAST_PUBLICATION_H

#include "publisher/packages/observer.h"
#include "publisher/packages/package.h"
#include "publisher/repository/publish_options.h"
#include "publisher/repository/repository.h"

#include <string>

namespace tarn::publisher {

/**
 * Whether none of the reader's keys has signed the full package at a path. A package that is missing or damaged tells
 * nothing about its key.
 */
[[nodiscard]] bool IsForeign(const PackageReader& reader, const std::string& path, const std::string& id, int version);

/**
 * Refuses a wrong signing key, with which all devices would stop: the full package of a version must be signed by a key
 * of the reader, unless no diff packages are wanted or the package cannot be read.
 *
 * @throws PublishError naming the package
 */
void RequireOwnPackage(
    const Repository& repository, const PackageReader& reader, const PublishOptions& options, int version);

/** Warns when the repository was served at another URL, since devices would ask a host that may not exist. */
void WarnOfOtherUrl(const Repository& repository, const PublishOptions& options, const PublishObserver& observer);

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
