/** @file The version that a withdrawal takes back, the choice of the version that comes back, and their content. */
#ifndef PUBLISHER_RELEASES_WITHDRAWAL_VERSIONS_H
#define PUBLISHER_RELEASES_WITHDRAWAL_VERSIONS_H

#include "publisher/diff/diff_chain.h"
#include "publisher/packages/diff_package.h"
#include "publisher/packages/package.h"
#include "publisher/repository/repository.h"

#include <json/json.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarn::publisher {

/** Throws PublishError for what stands in the way. What it is made from has to outlive it. */
class WithdrawalVersions {
public:
	/** @param newest  the entry of the version that is withdrawn; the chain leads to it, or is empty */
	WithdrawalVersions(const Repository& repository, const PackageReader& reader, const std::string& id,
	    const Entry& newest, const DiffChain& chain);

	/**
	 * @param to  the version that is asked for; without a value, the version before the newest
	 * @return the version that comes back; one of the reader's keys has signed its package
	 */
	[[nodiscard]] int Choose(const std::optional<std::int64_t>& to) const;

	/** What the newest version says about itself. */
	[[nodiscard]] const Json::Value& NewestMetadata() const { return metadata_; }

	/** Whether a full package has the newest version's format: others are of another document. */
	[[nodiscard]] bool IsOfFormat(const PackageFile& file) const;

	/** Whether the full package of a version is there, served or kept by a withdrawal. */
	[[nodiscard]] bool HasPackage(int version) const;

	/**
	 * Unpacks a version's full package. When it is missing, unpacks the nearest full package before it, and applies the
	 * diff packages in between as devices do.
	 *
	 * @return the metadata of the last package that was read
	 * @throws PublishError naming what is missing or cannot be trusted
	 */
	[[nodiscard]] Json::Value Unpack(int version, const std::string& directory, const WorkDirectory& work) const;

private:
	[[nodiscard]] Json::Value ReadNewestMetadata() const;
	[[nodiscard]] int Named(std::int64_t data_version) const;
	[[nodiscard]] int Default() const;
	[[nodiscard]] int NewestFullBelow() const;
	/** The diff packages that lead to a version from a full package. */
	[[nodiscard]] std::vector<DiffStep> StepsTo(int version) const;

	const Repository& repository_;
	const PackageReader& reader_;
	const std::string& id_;
	const Entry& newest_;
	const DiffChain& chain_;
	Json::Value metadata_; // of the newest version
};

} // namespace tarn::publisher

#endif
