#include "publisher/changes/version_tree.h"

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

const Link& LinkTo(const VersionSource& source, int version, int last_withdrawal, const Links& links) {
	std::string withdrawn;
	if (const auto candidates = links.find(version); version > 0 && candidates != links.end()) {
		const auto above = candidates->second.upper_bound(last_withdrawal);
		if (above != candidates->second.begin()) {
			return *std::prev(above);
		}
		withdrawn = ": version " + std::to_string(above->first) + " has withdrawn it";
	}
	throw PublishError("neither " + source.repository.PackagePath(source.id, version) + " nor " +
	                   source.repository.DiffPath(source.id, version) + " is there" + withdrawn);
}

/**
 * The diff packages from the nearest full package below. An empty one leads on only as far as the withdrawal that made
 * it: to a version before that, or to a package of the chain that it replaced, it does not lead.
 */
std::vector<DiffStep> StepsTo(const VersionSource& source, int version) {
	const Links links = LinksOf(source);
	std::vector<DiffStep> steps;
	int last_withdrawal = version;
	for (int at = version; !fs::exists(source.repository.KeptPackagePath(source.id, at)); --at) {
		const auto& [withdrawal, path] = LinkTo(source, at, last_withdrawal, links);
		steps.push_back({at, path});
		if (withdrawal == 0) {
			last_withdrawal = at;
		}
	}
	std::reverse(steps.begin(), steps.end());
	return steps;
}

VersionTree Make(const VersionSource& source, int version, const WorkDirectory& work, const std::string& name,
    const std::string& earlier) {
	const std::vector<DiffStep> steps = StepsTo(source, version);
	const int diffs = static_cast<int>(steps.size());
	const int full = version - diffs;
	const std::string path = source.repository.KeptPackagePath(source.id, full);
	const PackageInfo info = {source.id, "", full};
	if (diffs > 0 || earlier.empty()) {
		source.reader.Unpack(path, info, work.Make(name));
	} else {
		source.reader.UnpackNextTo(path, info, work.Path(), name, earlier);
	}
	VersionTree tree;
	if (diffs > 0) {
		ApplyDiffs(source.reader, source.id, steps, work / name, work);
	}
	// Of a package that was checked when it was unpacked.
	const Json::Value metadata = ReadMetadata(archive::ArchiveFile(diffs > 0 ? steps.back().path : path));
	if (diffs > 0) {
		tree.scripted = ChainState::FromMetadata(metadata).Scripted();
	}
	tree.version = {version, full, diffs, PublishedTime(metadata)};
	return tree;
}

} // namespace

VersionTree MakeVersionTree(const VersionSource& source, int version, const WorkDirectory& work,
    const std::string& name, const std::string& earlier) {
	try {
		return Make(source, version, work, name, earlier);
	} catch (const std::exception& error) {
		throw PublishError("Version " + std::to_string(version) + " of " + source.id +
		                   " cannot be made from the packages that are kept: " + WithoutEnd(error.what()) + ".");
	}
}

} // namespace tarn::publisher
