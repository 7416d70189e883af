#include "publisher/version_tree.h"

#include "base/error.h"
#include "base/text.h"
#include "publisher/apply_diffs.h"
#include "publisher/diff_chain.h"
#include "publisher/diff_package.h"
#include "publisher/publish_error.h"

#include <filesystem>

namespace tarn::publisher {

namespace {

namespace fs = std::filesystem;

/** The metadata of a package that was checked when it was unpacked. */
Json::Value CheckedMetadata(const std::string& path) {
	return ReadMetadata(archive::ArchiveFile(path));
}

/** The steps of MakeVersionTree(). */
class VersionMaker {
public:
	VersionMaker(const VersionSource& source, int version, const WorkDirectory& work)
	    : source_(source), work_(work), full_(FullPackageBelow(version)) {
		tree_.version = {version, full_, version - full_, std::nullopt};
	}

	VersionTree Make(const std::string& name, const std::string& earlier) {
		const std::string path = source_.repository.KeptPackagePath(source_.id, full_);
		const PackageInfo info = {source_.id, "", full_};
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
	int FullPackageBelow(int version) const {
		int at = version;
		while (!fs::exists(source_.repository.KeptPackagePath(source_.id, at))) {
			if (at == 0 || !fs::exists(source_.repository.DiffPath(source_.id, at))) {
				throw PublishError("neither " + source_.repository.KeptPackagePath(source_.id, at) + " nor " +
				                   source_.repository.DiffPath(source_.id, at) + " is there");
			}
			--at;
		}
		return at;
	}

	void Follow(const std::string& installed) {
		std::vector<DiffStep> steps;
		for (int at = full_ + 1; at <= tree_.version.version; ++at) {
			steps.push_back({at, source_.repository.DiffPath(source_.id, at)});
		}
		ApplyDiffs(source_.reader, source_.id, steps, installed, work_);
		const Json::Value metadata = CheckedMetadata(steps.back().path);
		tree_.version.published = PublishedTime(metadata);
		tree_.scripted = ChainState::FromMetadata(metadata).Scripted();
	}

	const VersionSource& source_;
	const WorkDirectory& work_;
	int full_;
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
