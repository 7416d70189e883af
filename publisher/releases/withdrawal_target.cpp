#include "publisher/releases/withdrawal_target.h"

#include "base/error.h"
#include "publisher/common/publish_error.h"
#include "publisher/repository/checks.h"
#include "publisher/repository/document_sentences.h"
#include "publisher/repository/last_publication.h"

#include <filesystem>

namespace tarn::publisher {

namespace fs = std::filesystem;

WithdrawalTarget::WithdrawalTarget(const Repository& repository, const PackageReader& reader, const std::string& id,
    const Entry& newest, const DiffChain& chain)
    : repository_(repository),
      reader_(reader),
      id_(id),
      newest_(newest),
      chain_(chain),
      metadata_(ReadNewestMetadata()) {}

int WithdrawalTarget::Choose(const std::optional<std::int64_t>& to) const {
	const int chosen = to ? Named(*to) : Default();
	RequireOwn(chosen);
	return chosen;
}

bool WithdrawalTarget::IsOfFormat(const PackageFile& file) const {
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
Json::Value WithdrawalTarget::ReadNewestMetadata() const {
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

int WithdrawalTarget::Named(std::int64_t data_version) const {
	if (data_version < 0 || data_version >= newest_.data_version) {
		throw PublishError("Version " + std::to_string(data_version) + " cannot come back: it must be below version " +
		                   std::to_string(newest_.data_version) + ", the newest of " + id_ + ".");
	}
	return static_cast<int>(data_version);
}

int WithdrawalTarget::Default() const {
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

int WithdrawalTarget::NewestFullBelow() const {
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

void WithdrawalTarget::RequireOwn(int data_version) const {
	const std::string path = repository_.KeptPackagePath(id_, data_version);
	if (IsForeign(reader_, path, id_, data_version)) {
		throw PublishError("Version " + std::to_string(data_version) + " of " + id_ +
		                   " cannot come back: its package " + path +
		                   " has no signature by --key or an --old-key; name the key that signed it by --old-key.");
	}
}

} // namespace tarn::publisher
