/** @file The content of versions that were published before. */
#ifndef PUBLISHER_RELEASES_VERSION_CONTENT_H
#define PUBLISHER_RELEASES_VERSION_CONTENT_H

#include "publisher/diff/diff_chain.h"
#include "publisher/packages/diff_package.h"
#include "publisher/packages/package.h"
#include "publisher/repository/repository.h"

#include <string>
#include <vector>

namespace tarn::publisher {

/** Unpacks versions of a database, or rebuilds them as devices do. */
class VersionContent {
public:
	/** All of them outlive the object. */
	VersionContent(
	    const Repository& repository, const PackageReader& reader, const DiffChain& chain, const std::string& id)
	    : repository_(repository), reader_(reader), chain_(chain), id_(id) {}

	/** Whether the full package of a version is there, served or kept by a withdrawal. */
	[[nodiscard]] bool HasPackage(int version) const;

	/**
	 * Unpacks a version's full package. When it is missing, unpacks the nearest full package before it, and applies the
	 * diff packages in between.
	 *
	 * @return the metadata of the last package that was read
	 * @throws PublishError naming what is missing or cannot be trusted
	 */
	[[nodiscard]] Json::Value Unpack(int version, const std::string& directory, const WorkDirectory& work) const;

private:
	/** The diff packages that lead to a version from a full package. */
	std::vector<DiffStep> StepsTo(int version) const;

	const Repository& repository_;
	const PackageReader& reader_;
	const DiffChain& chain_;
	const std::string& id_;
};

} // namespace tarn::publisher

#endif
