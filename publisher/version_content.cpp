#include "publisher/version_content.h"

#include "decoder/decode.h"
#include "publisher/device.h"
#include "publisher/publish_error.h"

#include <algorithm>
#include <filesystem>

namespace tarn::publisher {

namespace fs = std::filesystem;

namespace {

void DecodePatchFile(const std::string& source, const std::string& output, const std::string& patch) {
	decoder::DecodeFile(source, output, patch);
}

} // namespace

bool VersionContent::HasPackage(int version) const {
	return fs::exists(repository_.KeptPackagePath(id_, version));
}

std::vector<std::pair<int, std::string>> VersionContent::StepsTo(int version) const {
	std::vector<std::pair<int, std::string>> steps;
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
		steps.emplace_back(at, link->path);
	}
	std::reverse(steps.begin(), steps.end());
	return steps;
}

Json::Value VersionContent::Unpack(int version, const std::string& directory, const WorkDirectory& work) const {
	const auto steps = StepsTo(version);
	const int first = version - static_cast<int>(steps.size());
	const std::string path = repository_.KeptPackagePath(id_, first);
	const PackageInfo info = {id_, "", first};
	reader_.Unpack(path, info, directory);
	Apply(steps, directory, work);
	return steps.empty() ? ReadMetadata(reader_.Open(path, info)) : chain_.Find(version)->package.metadata;
}

void VersionContent::Apply(const std::vector<std::pair<int, std::string>>& packages, const std::string& directory,
    const WorkDirectory& work) const {
	if (packages.empty()) {
		return;
	}
	const std::string copies = work.Make("apply-copies");
	try {
		DevicePatcher patcher(copies, directory, DecodePatchFile);
		for (const auto& [version, path] : packages) {
			const std::string package = work.Make("apply-package");
			reader_.Unpack(path, {id_, "", version, kDiffKind}, package);
			patcher.Apply(package);
			fs::remove_all(package);
		}
		patcher.Install();
	} catch (const std::exception& error) {
		throw PublishError(std::string("devices could not apply it: ") + error.what());
	}
	fs::remove_all(copies);
}

} // namespace tarn::publisher
