/** @file Publishing one version. */
#ifndef PUBLISHER_RELEASES_PUBLISH_H
#define PUBLISHER_RELEASES_PUBLISH_H

#include "publisher/diff/diff_maker.h"
#include "publisher/packages/observer.h"
#include "publisher/repository/publish_options.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tarn::publisher {

struct PublishResult {
	int data_version = 0;
	bool is_unchanged = false; // whether the newest version holds the tree, and nothing was published
	bool is_first = false;     // whether the repository knew nothing of the database before
	std::uint64_t files = 0;
	std::uint64_t tree_size = 0;
	std::uint64_t package_size = 0;
	std::string download_link;
	std::optional<DiffResult> diff;
};

/**
 * Publishes one version of a database: first its packages, then the document that names them. Each file appears whole.
 * At any moment, also after a publisher was killed, the repository serves the old state or the new state.
 *
 * A diff package from the version before is made when that version is published. When no diff package can be made, the
 * version is published without, and devices take the full package. RequireOwnPackage() refuses another key.
 *
 * The version must be above every version that a document names or that is there as a package: devices take higher
 * versions only, and a package that was announced must never change. A full package that a killed publisher left is
 * published when the tree makes the same bytes again, and is never replaced by other bytes.
 *
 * @throws UsageError for a value that can never work; PublishError, or the archive's Error, otherwise
 */
PublishResult Publish(const PublishOptions& options, const PublishObserver& observer);

} // namespace tarn::publisher

#endif
