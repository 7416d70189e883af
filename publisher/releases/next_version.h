/** @file Which version is published next. */
#ifndef PUBLISHER_RELEASES_NEXT_VERSION_H
#define PUBLISHER_RELEASES_NEXT_VERSION_H

#include "publisher/repository/publish_options.h"
#include "publisher/repository/repository.h"

namespace tarn::publisher {

/** Which version a repository lets a publisher publish. */
struct NextVersion {
	int data_version = 0;
	bool is_first = false; // neither a document nor a package of the database is there
	bool is_begun = false; // its full package is there, from a publisher that was killed before its document
};

/**
 * Chooses the version to publish, the last version plus one unless the options name another. Devices may have every
 * package that is in the repository, whether a document names it or not. They never go down, and never take another
 * tree of the version that they have.
 *
 * @throws PublishError when the version is not above all that a document names, when no document names the database
 *         though packages of it are there, when a package of a higher version is there, or a diff package of this
 *         version, or when nothing is there and the options allow no first publication
 */
[[nodiscard]] NextVersion ChooseVersion(const PublishOptions& options, const Repository& repository);

} // namespace tarn::publisher

#endif
