/** @file What lies in a repository at one moment. */
#ifndef PUBLISHER_REPOSITORY_REPOSITORY_LISTING_H
#define PUBLISHER_REPOSITORY_REPOSITORY_LISTING_H

#include "publisher/repository/document.h"
#include "publisher/repository/repository.h"

#include <map>
#include <string>
#include <vector>

namespace tarn::publisher {

/** The files of a repository that are judged by what documents say, and those that nothing can need. */
struct RepositoryListing {
	bool is_publishing = false;                                // a publisher holds the repository's lock
	std::map<std::string, Document> documents;                 // by name
	std::map<std::string, std::string> damaged;                // sentences by the names of such documents
	std::map<std::string, std::vector<PackageFile>> packages;  // by the database, in their place
	std::map<std::string, std::vector<PackageFile>> withdrawn; // by the database, those that withdrawals keep
	std::vector<std::string> leftovers;                        // of killed publishers
	std::vector<std::string> strangers; // files that are no package in its place, and no document
};

/**
 * Lists a repository. Holds publishers off while it lists, unless one is at work; writes nothing.
 *
 * @throws PublishError when a directory cannot be read
 */
[[nodiscard]] RepositoryListing ListRepository(const std::string& directory);

} // namespace tarn::publisher

#endif
