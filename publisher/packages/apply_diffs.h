/** @file Applying published diff packages to a tree, as devices do. */
#ifndef PUBLISHER_PACKAGES_APPLY_DIFFS_H
#define PUBLISHER_PACKAGES_APPLY_DIFFS_H

#include "publisher/common/files.h"
#include "publisher/packages/package.h"

#include <string>
#include <vector>

namespace tarn::publisher {

/** A diff package, and the version that it leads to. */
struct DiffStep {
	int version = 0;
	std::string path;
};

/**
 * Applies diff packages in turn to the files in a directory, and puts the result in place after the last one. Takes
 * room in the work directory for one unpacked package at a time and for working copies, and gives it back.
 *
 * @throws PublishError naming the package that cannot be trusted, or saying that devices could not apply it
 */
void ApplyDiffs(const PackageReader& reader, const std::string& id, const std::vector<DiffStep>& steps,
    const std::string& directory, const WorkDirectory& work);

} // namespace tarn::publisher

#endif
