#include "publisher/package_reader.h"

#include "archive/extractor.h"
#include "base/error.h"
#include "publisher/diff_package.h"
#include "publisher/publish_error.h"

#include <fcntl.h>

namespace tarn::publisher {

namespace {

[[noreturn]] void Refuse(const std::string& path, const Error& error) {
	throw PublishError("the package " + path + " " + error.what());
}

void RequireMetadata(const Json::Value& metadata, const PackageInfo& expected) {
	if (!metadata.isObject() || metadata["id"] != expected.id || metadata["kind"] != expected.kind ||
	    metadata["data_version"] != expected.data_version) {
		throw Error("is not the " + expected.kind + " package of version " + std::to_string(expected.data_version) +
		            " of " + expected.id);
	}
}

} // namespace

std::vector<archive::TrustedKey> LoadPublicKeys(const std::vector<std::string>& files, const std::string& what) {
	std::vector<archive::TrustedKey> keys;
	for (const std::string& file : files) {
		try {
			keys.push_back(archive::LoadPublicKeyFile(file));
		} catch (const Error& error) {
			throw PublishError(what + " cannot be used: " + error.what() + ".");
		}
	}
	return keys;
}

PackageReader::PackageReader(const archive::SigningKey& key, const std::vector<std::string>& old_keys)
    : keys_(LoadPublicKeys(old_keys, "The old public key")) {
	keys_.insert(keys_.begin(), {"the signing key", archive::PublicKey::FromPem(key.PublicPem())});
}

archive::ArchiveFile PackageReader::Open(const std::string& path, const PackageInfo& expected) const {
	try {
		archive::ArchiveFile archive(path);
		archive.Check(keys_, archive::kDataUpdateKeyType);
		RequireMetadata(ReadMetadata(archive), expected);
		return archive;
	} catch (const Error& error) {
		Refuse(path, error);
	}
}

void PackageReader::Unpack(const archive::ArchiveFile& archive, const std::string& path, const std::string& directory,
    const std::vector<std::string>& members) {
	try {
		const UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
		if (!fd) {
			ThrowErrno("cannot be unpacked into " + directory);
		}
		archive::Extract(archive, fd.Get(), members);
	} catch (const Error& error) {
		Refuse(path, error);
	}
}

} // namespace tarn::publisher
