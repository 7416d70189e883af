#include "device_tree.h"

#include "archive/extractor.h"
#include "base/sha2.h"
#include "dataupdate/internal/patch_description.h"
#include "dataupdate/internal/patcher.h"
#include "decoder/decode.h"

#include <fcntl.h>

namespace tarn::test {

namespace fs = std::filesystem;

namespace {

/** Long content by its digest, so that a failed comparison can be read. */
std::string ShortContent(const std::string& content) {
	constexpr std::size_t kShort = 60;
	if (content.size() < kShort) {
		return content;
	}
	Sha256 digest;
	digest.Add(content);
	return std::to_string(content.size()) + " bytes " + digest.FinishHex();
}

} // namespace

void UnpackPackage(const std::string& package, const std::string& public_key, const std::string& directory) {
	const archive::ArchiveFile archive(package);
	std::vector<archive::TrustedKey> keys;
	keys.push_back(archive::LoadPublicKeyFile(public_key));
	archive.Check(keys, 6);
	const UniqueFd out(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	archive::Extract(archive, out.Get());
}

std::map<std::string, std::string> FilesBelow(const std::string& directory) {
	std::map<std::string, std::string> files;
	for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
		if (entry.is_regular_file() && !entry.is_symlink()) {
			const bool executable = (entry.status().permissions() & fs::perms::owner_exec) != fs::perms::none;
			files[entry.path().lexically_relative(directory).string()] =
			    (executable ? "x " : "") + ShortContent(ReadFile(entry.path().string()));
		}
	}
	return files;
}

std::set<std::string> DirectoriesBelow(const std::string& directory) {
	std::set<std::string> names;
	for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
		if (entry.is_directory() && !entry.is_symlink()) {
			names.insert(entry.path().lexically_relative(directory).string());
		}
	}
	return names;
}

void DeviceTree::Install(const std::string& package) {
	fs::remove_all(Root());
	fs::create_directory(Root());
	UnpackPackage(package, public_key_, Root());
}

void DeviceTree::Update(const std::vector<std::string>& packages) {
	const TemporaryDirectory work;
	fs::create_directory(work / "copies");
	dataupdate::Patcher patcher(
	    work / "copies", Root(), [](const std::string& source, const std::string& output, const std::string& patch) {
		    decoder::DecodeFile(source, output, patch);
	    });
	for (const std::string& package : packages) {
		fs::create_directory(work / "package");
		UnpackPackage(package, public_key_, work / "package");
		patcher.ApplyPackage(work / "package");
		fs::remove_all(work / "package");
	}
	dataupdate::CheckConflicts(patcher.Modifications(), Root());
	patcher.Install(patcher.CheckedChanges());
}

} // namespace tarn::test
