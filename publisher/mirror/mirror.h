/** @file Carrying a repository to a store, where devices find it. */
#ifndef PUBLISHER_MIRROR_MIRROR_H
#define PUBLISHER_MIRROR_MIRROR_H

#include "publisher/packages/observer.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tarn::publisher {

struct MirrorOptions {
	std::string repository;
	std::string store; // as rclone names it: "NAME:PATH"
	bool keeps_all = false;
	bool force = false;    // also where the store offers what the repository lacks
	bool compares = false; // the content of all packages, and not only their sizes
	bool dry_run = false;
};

struct MirrorResult {
	std::vector<std::string> carried; // packages that were carried, or would be
	std::uint64_t bytes = 0;          // of these
	std::uint64_t unchanged_packages = 0;
	std::vector<std::string> written; // documents
	std::uint64_t unchanged_documents = 0;
	std::vector<std::string> deleted; // documents and packages
	int rounds = 0;                   // above 1 when the repository changed meanwhile
};

/**
 * Makes a store hold what the repository offers: all packages first; then, when the store has every package that a
 * document names, the documents as they were at the beginning; then deletes what the repository no longer has. So
 * whenever this process is killed, each document at the store names packages that are there. Begins again when a
 * publisher has meanwhile removed a package that was to be carried.
 *
 * Waits for another run of the same repository, and not for publishers. Leaves nothing in the repository.
 *
 * @throws BrokenRepository when devices could not use the repository; UsageError; PublishError. In all cases each
 *         document at the store names packages that are there.
 */
MirrorResult Mirror(const MirrorOptions& options, const PublishObserver& observer);

} // namespace tarn::publisher

#endif
