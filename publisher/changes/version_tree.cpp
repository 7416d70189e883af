#include "publisher/changes/version_tree.h"

#include "base/error.h"
#include "base/text.h"
#include "publisher/common/publish_error.h"
#include "publisher/diff/diff_chain.h"
#include "publisher/packages/diff_package.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <vector>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

/** The metadata of a package that was checked when it was unpacked. */
Json::Value CheckedMetadata(const std::string& path) {
	return ReadMetadata(archive::ArchiveFile(path));
}

using Candidates = std::map<int, std::string>; // paths of packages to one version, by their withdrawals or 0
using Link = Candidates::value_type;
using Links = std::map<int, Candidates>; // by version

/** The diff packages that are there under their own names. */
Links LinksOf(const VersionSource& source) {
	Links links;
	for (const PackageFile& file : source.repository.Packages(source.id)) {
		const std::string place = source.repository.Directory() + "/" + Repository::NameOf(source.id, file);
		if (file.is_diff && file.path == place) {
			links[file.data_version][file.withdrawal] = file.path;
		}
	}
	return links;
}

/** The steps of MakeVersionTree(). */
class VersionMaker {
public:
	VersionMaker(const VersionSource& source, int version, const WorkDirectory& work)
	    : source_(source), work_(work), steps_(StepsTo(version)) {
		const int diffs = static_cast<int>(steps_.size());
		tree_.version = {version, version - diffs, diffs, std::nullopt};
	}

	VersionTree Make(const std::string& name, const std::string& earlier) {
		const int full = tree_.version.full_package;
		const std::string path = source_.repository.KeptPackagePath(source_.id, full);
		const PackageInfo info = {source_.id, "", full};
		if (tree_.version.diffs > 0 || earlier.empty()) {
			source_.reader.Unpack(path, info, work_.Make(name));
		} else {
			source_.reader.UnpackNextTo(path, info, work_.Path(), name, earlier);
		}
		tree_.version.published = PublishedTime(CheckedMetadata(path));
		if (tree_.version.diffs > 0) {
			Follow(work_ / name);
		}
		return std::move(tree_);
	}

private:
	/**
	 * The diff packages from the nearest full package below. An empty one leads on only as far as the withdrawal that
	 * made it: to a version before that, or to a package of the chain that it replaced, it does not lead.
	 */
	std::vector<DiffStep> StepsTo(int version) const {
		const Links links = LinksOf(source_);
		std::vector<DiffStep> steps;
		int last_withdrawal = version;
		for (int at = version; !fs::exists(source_.repository.KeptPackagePath(source_.id, at)); --at) {
			const auto& [withdrawal, path] = LinkTo(at, last_withdrawal, links);
			steps.push_back({at, path});
			if (withdrawal == 0) {
				last_withdrawal = at;
			}
		}
		std::reverse(steps.begin(), steps.end());
		return steps;
	}

	const Link& LinkTo(int version, int last_withdrawal, const Links& links) const {
		std::string withdrawn;
		if (const auto candidates = links.find(version); version > 0 && candidates != links.end()) {
			const auto above = candidates->second.upper_bound(last_withdrawal);
			if (above != candidates->second.begin()) {
				return *std::prev(above);
			}
			withdrawn = ": version " + std::to_string(above->first) + " has withdrawn it";
		}
		throw PublishError("neither " + source_.repository.PackagePath(source_.id, version) + " nor " +
		                   source_.repository.DiffPath(source_.id, version) + " is there" + withdrawn);
	}

	void Follow(const std::string& installed) {
		ApplyDiffs(source_.reader, source_.id, steps_, installed, work_);
		const Json::Value metadata = CheckedMetadata(steps_.back().path);
		tree_.version.published = PublishedTime(metadata);
		tree_.scripted = ChainState::FromMetadata(metadata).Scripted();
	}

	const VersionSource& source_;
	const WorkDirectory& work_;
	std::vector<DiffStep> steps_;
	VersionTree tree_;
};

} // namespace

VersionTree MakeVersionTree(const VersionSource& source, int version, const WorkDirectory& work,
    const std::string& name, const std::string& earlier) {
	try {
		return VersionMaker(source, version, work).Make(name, earlier);
	} catch (const std::exception& error) {
		throw PublishError("Version " + std::to_string(version) + " of " + source.id +
		                   " cannot be made from the packages that are kept: " + WithoutEnd(error.what()) + ".");
	}
}

} // namespace tarn::publisher
