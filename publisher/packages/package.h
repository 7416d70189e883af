/** @file Signed packages, written and read. */
#ifndef PUBLISHER_PACKAGES_PACKAGE_H
#define PUBLISHER_PACKAGES_PACKAGE_H

#include "archive/file.h"
#include "archive/keys.h"
#include "archive/signing_key.h"
#include "publisher/packages/tree.h"

#include <json/json.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace tarn::publisher {

constexpr std::int64_t kMaxNumber = std::numeric_limits<int>::max(); // of versions and times, as devices read them
constexpr const char* kFormatKey = "format_version";                 // a member of the metadata

/** What a package says about itself. */
struct PackageInfo {
	std::string id;
	std::string format_version;
	int data_version = 0;
	std::string kind = "full";
	Json::Value more = Json::Value(Json::objectValue); // what else the metadata says
	int published = 0;                                 // when, in seconds since 1970
};

/** Adds what a publisher says about a version to metadata; nothing when there is nothing to say. */
void AddNotes(const std::string& notes, Json::Value& metadata);

/** Called while packing with the files and bytes done so far. */
using PackProgress = std::function<void(std::uint64_t files, std::uint64_t bytes)>;

/**
 * Writes a signed package. The same tree, info, key and level give the same bytes. Files of like kind, by their
 * extensions and directories, lie together, because they compress better so.
 *
 * @param level       archive::kMinLevel to archive::kMaxLevel
 * @param archive_fd  an empty file, open for writing
 * @param path        its path; its directory lends space for the payload
 * @return the package's size
 * @throws PublishError naming the file that cannot be read or changes while it is read; Error of archive/
 */
[[nodiscard]] std::uint64_t WritePackage(const Tree& tree, const PackageInfo& info, const archive::SigningKey& key,
    int level, int archive_fd, const std::string& path, const PackProgress& progress);

/** A package's metadata; null when it is no JSON. */
Json::Value ReadMetadata(const archive::ArchiveFile& archive);

/** When a package was published, in seconds since 1970; no value when it says nothing that devices read. */
[[nodiscard]] std::optional<int> PublishedTime(const Json::Value& metadata);

/**
 * Reads files of public keys.
 *
 * @param what  names these keys in the PublishError that it throws
 */
[[nodiscard]] std::vector<archive::TrustedKey> LoadPublicKeys(
    const std::vector<std::string>& files, const std::string& what = "The public key");

/** Reads packages that one of its keys has signed, and no others. */
class PackageReader {
public:
	/**
	 * @param key       signs now
	 * @param old_keys  files of public keys that signed before
	 * @throws PublishError
	 */
	PackageReader(const archive::SigningKey& key, const std::vector<std::string>& old_keys);

	/**
	 * For who signs nothing.
	 *
	 * @param keys  files of public keys
	 * @throws PublishError
	 */
	explicit PackageReader(const std::vector<std::string>& keys) : keys_(LoadPublicKeys(keys)) {}

	/**
	 * Opens a package and checks all of it.
	 *
	 * @param expected  id, version and kind that its metadata must name, since files are easily put in a wrong place; a
	 *                  diff package must also begin at the version before
	 * @throws PublishError naming the package
	 */
	[[nodiscard]] archive::ArchiveFile Open(const std::string& path, const PackageInfo& expected) const;

	/** The same without its signature and content: only what the package says about itself. */
	[[nodiscard]] static archive::ArchiveFile OpenUnchecked(const std::string& path, const PackageInfo& expected);

	/** Opens a package and unpacks it as UnpackBeside() does; throws PublishError naming the package. */
	void UnpackNextTo(const std::string& path, const PackageInfo& expected, const std::string& root,
	    const std::string& target, const std::string& earlier) const;

	/** Opens a package and unpacks members of it, or all, into a directory; throws PublishError naming the package. */
	void Unpack(const std::string& path, const PackageInfo& expected, const std::string& directory,
	    const std::vector<std::string>& members = {}) const;

private:
	std::vector<archive::TrustedKey> keys_;
};

} // namespace tarn::publisher

#endif
