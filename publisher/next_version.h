#ifndef PUBLISHER_NEXT_VERSION_H
#define PUBLISHER_NEXT_VERSION_H

#include "publisher/publish.h"
#include "publisher/repository.h"

namespace tarn::publisher {

/** Which version a repository lets a publisher publish. */
struct NextVersion {
	int data_version = 0;
	bool is_first = false; // neither a document nor a package of the database is there
	bool is_begun = false; // its full package is there, from a publisher that was killed before its document
};

/**
 * Chooses the version to publish, the last one plus one unless the options name another. Devices may have whatever
 * package is in the repository, named by a document or not, and never go down nor take another tree of the version that
 * they have.
 *
 * @throws PublishError when the version is not above all that a document names, when no document names the database
 *         though packages of it are there, when a package of a higher version is there, or a diff package of this one,
 *         or when nothing is there and the options ask for a database that is
 */
NextVersion ChooseVersion(const PublishOptions& options, const Repository& repository);

} // namespace tarn::publisher

#endif
