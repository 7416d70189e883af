#include "publisher/releases/version_content.h"

#include "publisher/common/publish_error.h"

#include <algorithm>
#include <filesystem>

namespace tarn::publisher {

namespace fs = std::filesystem;

bool VersionContent::HasPackage(int version) const {
	return fs::exists(repository_.KeptPackagePath(id_, version));
}

std::vector<DiffStep> VersionContent::StepsTo(int version) const {
	std::vector<DiffStep> steps;
	for (int at = version; !HasPackage(at); --at) {
		const std::string missing = "The content of version " + std::to_string(version) + " of " + id_ +
		                            " cannot be made: its full package " + repository_.PackagePath(id_, version) +
		                            " is missing";
		const DiffChain::Link* link = chain_.Find(at);
		if (link == nullptr) {
			throw PublishError(missing + ", and so is a diff package to version " + std::to_string(at) +
			                   " that the document names, to rebuild it from an earlier full package.");
		}
		if (at == version && link->IsEmptied()) {
			throw PublishError(missing + ", and its diff package was withdrawn.");
		}
		steps.push_back({at, link->path});
	}
	std::reverse(steps.begin(), steps.end());
	return steps;
}

Json::Value VersionContent::Unpack(int version, const std::string& directory, const WorkDirectory& work) const {
	const std::vector<DiffStep> steps = StepsTo(version);
	const int first = version - static_cast<int>(steps.size());
	const std::string path = repository_.KeptPackagePath(id_, first);
	const PackageInfo info = {id_, "", first};
	reader_.Unpack(path, info, directory);
	ApplyDiffs(reader_, id_, steps, directory, work);
	return steps.empty() ? ReadMetadata(reader_.Open(path, info)) : chain_.Find(version)->package.metadata;
}

} // namespace tarn::publisher
