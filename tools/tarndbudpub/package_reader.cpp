#include "package_reader.h"

#include "diff_package.h"
#include "publish_error.h"
#include "tarncodesign/archive_error.h"
#include "tarncodesign/extractor.h"
#include "tarncodesign/tarncodesign.h"

#include <fcntl.h>

namespace tarn::publisher {

namespace {

using codesign::ArchiveError;

[[noreturn]] void Refuse(const std::string& path, const ArchiveError& error) {
	throw PublishError("the package " + path + " " + error.what());
}

void RequireMetadata(const Json::Value& metadata, const PackageInfo& expected) {
	if (!metadata.isObject() || metadata["id"] != expected.id || metadata["kind"] != expected.kind ||
	    metadata["data_version"] != expected.data_version) {
		throw ArchiveError("is not the " + expected.kind + " package of version " +
		                   std::to_string(expected.data_version) + " of " + expected.id);
	}
}

} // namespace

std::vector<codesign::TrustedKey> LoadPublicKeys(const std::vector<std::string>& files, const std::string& what) {
	std::vector<codesign::TrustedKey> keys;
	for (const std::string& file : files) {
		try {
			keys.push_back(codesign::LoadPublicKeyFile(file));
		} catch (const ArchiveError& error) {
			throw PublishError(what + " cannot be used: " + error.what() + ".");
		}
	}
	return keys;
}

PackageReader::PackageReader(const SigningKey& key, const std::vector<std::string>& old_keys)
    : keys_(LoadPublicKeys(old_keys, "The old public key")) {
	keys_.insert(keys_.begin(), {"the signing key", codesign::PublicKey::FromPem(key.PublicPem())});
}

codesign::ArchiveFile PackageReader::Open(const std::string& path, const PackageInfo& expected) const {
	try {
		codesign::ArchiveFile archive(path);
		archive.Check(keys_, TARNARCHIVE_KEYTYPE_DATA_UPDATE);
		RequireMetadata(ReadMetadata(archive), expected);
		return archive;
	} catch (const ArchiveError& error) {
		Refuse(path, error);
	}
}

void PackageReader::Unpack(const codesign::ArchiveFile& archive, const std::string& path, const std::string& directory,
    const std::vector<std::string>& members) {
	try {
		const UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
		if (!fd) {
			codesign::ThrowErrno("cannot be unpacked into " + directory);
		}
		codesign::Extract(archive, fd.Get(), members);
	} catch (const ArchiveError& error) {
		Refuse(path, error);
	}
}

} // namespace tarn::publisher
