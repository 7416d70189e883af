/** @file What the last publication says about the options of the next one. */
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

} // namespace tarn::publisher

#endif
