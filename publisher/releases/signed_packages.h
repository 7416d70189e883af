/** @file What the signed packages of a repository say about themselves, where no document tells. */
#ifndef PUBLISHER_RELEASES_SIGNED_PACKAGES_H
#define PUBLISHER_RELEASES_SIGNED_PACKAGES_H

#include "publisher/packages/observer.h"
#include "publisher/packages/package.h"
#include "publisher/repository/repository.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace tarn::publisher {

/** What a signed package in its place says about itself. */
struct SignedPackage {
	std::string path;
	int published = 0;
	bool says_when = false; // or else published is the time of the file
	std::string format_version;
	std::uint64_t size = 0;
};

struct SignedPackages {
	std::map<int, SignedPackage> full;                 // by version
	std::map<int, std::map<int, SignedPackage>> diffs; // by version, and by the withdrawal that made it or 0
	int highest = -1; // version of all packages of the wanted format, also of those that cannot be used
};

/**
 * Reads and checks all packages of a database.
 *
 * @param format_version  packages of others are left out; no value takes all
 * @param observer        gets a warning for every package that cannot be used
 */
[[nodiscard]] SignedPackages ReadSignedPackages(const Repository& repository, const PackageReader& reader,
    const std::string& id, const std::optional<std::string>& format_version, const PublishObserver& observer);

} // namespace tarn::publisher

#endif
