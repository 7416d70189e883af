#include "publisher/releases/withdrawal_versions.h"

#include "base/error.h"
#include "publisher/common/publish_error.h"
#include "publisher/repository/document_sentences.h"
#include "publisher/repository/last_publication.h"

#include <algorithm>
#include <filesystem>

namespace tarn::publisher {

namespace fs = std::filesystem;

WithdrawalVersions::WithdrawalVersions(const Repository& repository, const PackageReader& reader, const std::string& id,
    const Entry& newest, const DiffChain& chain)
    : repository_(repository),
      reader_(reader),
      id_(id),
      newest_(newest),
      chain_(chain),
      metadata_(ReadNewestMetadata()) {}

int WithdrawalVersions::Choose(const std::optional<std::int64_t>& to) const {
	const int chosen = to ? Named(*to) : Default();
	const std::string path = repository_.KeptPackagePath(id_, chosen);
	if (IsForeign(reader_, path, id_, chosen)) {
		throw PublishError("Version " + std::to_string(chosen) + " of " + id_ + " cannot come back: its package " +
		                   path +
		                   " has no signature by --key or an --old-key; name the key that signed it by --old-key.");
	}
	return chosen;
}

bool WithdrawalVersions::IsOfFormat(const PackageFile& file) const {
	try {
		const Json::Value metadata = file.is_diff ? Json::Value() : ReadMetadata(archive::ArchiveFile(file.path));
		return metadata.isObject() &&
		       (!metadata_.isMember(kFormatKey) || metadata[kFormatKey] == metadata_[kFormatKey]);
	} catch (const Error&) { // no device can install it
		return false;
	}
}

/**
 * By the newest version's diff package when its full package is missing. It needs no trust where nothing is made from
 * it: it can only lead to a refusal.
 */
Json::Value WithdrawalVersions::ReadNewestMetadata() const {
	const std::string path = repository_.PackagePath(id_, newest_.data_version);
	if (fs::exists(path)) {
		const PackageInfo info = {id_, "", newest_.data_version};
		try {
			return ReadMetadata(reader_.Open(path, info));
		} catch (const ForeignPackage&) {
			return ReadMetadata(PackageReader::OpenUnchecked(path, info));
		}
	}
	return chain_.Links().empty() ? Json::Value(Json::objectValue) : chain_.Links().back().package.metadata;
}

int WithdrawalVersions::Named(std::int64_t data_version) const {
	if (data_version < 0 || data_version >= newest_.data_version) {
		throw PublishError("Version " + std::to_string(data_version) + " cannot come back: it must be below version " +
		                   std::to_string(newest_.data_version) + ", the newest of " + id_ + ".");
	}
	return static_cast<int>(data_version);
}

int WithdrawalVersions::Default() const {
	if (metadata_.isMember(kRestoresKey)) {
		repository_.Clean(id_); // What a killed withdrawal has left to do is all that is left to do.
		throw PublishError("Version " + std::to_string(newest_.data_version) + " of " + id_ +
		                   " is itself a withdrawal, with the content of version " +
		                   metadata_[kRestoresKey].asString() + "; --to says which version is to come back.");
	}
	if (repository_.EntriesOf(id_).size() > 1) {
		// The version before may have been on trial in another channel only.
		throw PublishError("Several documents name " + id_ + ", so --to has to say which version is to come back: " +
		                   NamingDocuments(repository_, id_) + ".");
	}
	return chain_.Links().empty() ? NewestFullBelow() : newest_.data_version - 1;
}

int WithdrawalVersions::NewestFullBelow() const {
	int before = -1;
	for (const PackageFile& file : repository_.Packages(id_)) {
		before = file.data_version < newest_.data_version && IsOfFormat(file) ? file.data_version : before;
	}
	if (before < 0) {
		throw PublishError("No version of " + id_ +
		                   " can come back: the repository holds no full package of a version below " +
		                   std::to_string(newest_.data_version) + ".");
	}
	return before;
}

bool WithdrawalVersions::HasPackage(int version) const {
	return fs::exists(repository_.KeptPackagePath(id_, version));
}

std::vector<DiffStep> WithdrawalVersions::StepsTo(int version) const {
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

Json::Value WithdrawalVersions::Unpack(int version, const std::string& directory, const WorkDirectory& work) const {
	const std::vector<DiffStep> steps = StepsTo(version);
	const int first = version - static_cast<int>(steps.size());
	const std::string path = repository_.KeptPackagePath(id_, first);
	const PackageInfo info = {id_, "", first};
	reader_.Unpack(path, info, directory);
	ApplyDiffs(reader_, id_, steps, directory, work);
	return steps.empty() ? ReadMetadata(reader_.Open(path, info)) : chain_.Find(version)->package.metadata;
}

} // namespace tarn::publisher
