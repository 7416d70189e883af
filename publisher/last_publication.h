/** @file What the last publication says about the options of the next one. */
#ifndef PUBLISHER_LAST_PUBLICATION_H
#define PUBLISHER_LAST_PUBLICATION_H

#include "publisher/package.h"
#include "publisher/publish.h"
#include "publisher/repository.h"

namespace tarn::publisher {

/**
 * Refuses a wrong signing key, with which all devices would stop: the full package of a version must be signed by a key
 * of the reader, unless no diff packages are wanted. A package that is missing, or that cannot be read, tells nothing
 * about the key.
 *
 * @throws PublishError naming the package
 */
void RequireOwnPackage(
    const Repository& repository, const PackageReader& reader, const PublishOptions& options, int version);

/** Warns when the repository was served at another URL, since devices would ask a host that may not exist. */
void WarnOfOtherUrl(const Repository& repository, const PublishOptions& options, const PublishObserver& observer);

} // namespace tarn::publisher

#endif
