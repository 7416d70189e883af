#ifndef PUBLISHER_PACKAGE_READER_H
#define PUBLISHER_PACKAGE_READER_H

#include "archive/file.h"
#include "archive/keys.h"
#include "archive/signing_key.h"
#include "publisher/package.h"

#include <string>
#include <vector>

namespace tarn::publisher {

/**
 * Reads files of public keys.
 *
 * @param what  names these keys in the PublishError that it throws
 */
std::vector<archive::TrustedKey> LoadPublicKeys(
    const std::vector<std::string>& files, const std::string& what = "The public key");

/** Reads packages of the repository, believing none that the publisher has not signed. */
class PackageReader {
public:
	/**
	 * @param key       signs now
	 * @param old_keys  files of public keys that signed before
	 * @throws PublishError
	 */
	PackageReader(const archive::SigningKey& key, const std::vector<std::string>& old_keys);

	/**
	 * For a reader that signs nothing.
	 *
	 * @param keys  files of public keys
	 * @throws PublishError
	 */
	explicit PackageReader(const std::vector<std::string>& keys) : keys_(LoadPublicKeys(keys)) {}

	/**
	 * Opens a package and checks all of it.
	 *
	 * @param expected  id, version and kind that its metadata must name, since a file is easily put in a wrong place
	 * @throws PublishError naming the package
	 */
	archive::ArchiveFile Open(const std::string& path, const PackageInfo& expected) const;

	/** Unpacks members of an open package, or all, into a directory; throws PublishError naming the package. */
	static void Unpack(const archive::ArchiveFile& archive, const std::string& path, const std::string& directory,
	    const std::vector<std::string>& members = {});

private:
	std::vector<archive::TrustedKey> keys_;
};

} // namespace tarn::publisher

#endif
