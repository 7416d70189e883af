#ifndef PUBLISHER_PACKAGE_H
#define PUBLISHER_PACKAGE_H

#include "archive/signing_key.h"
#include "publisher/tree.h"

#include <json/json.h>

#include <cstdint>
#include <functional>
#include <string>

namespace tarn::publisher {

/** What a package says about itself. */
struct PackageInfo {
	std::string id;
	std::string format_version;
	int data_version = 0;
	std::string kind = "full";
	Json::Value more = Json::Value(Json::objectValue); // what else the metadata says
	int published = 0;                                 // when, in seconds since 1970
};

/** Called while packing with the files and bytes done so far. */
using PackProgress = std::function<void(std::uint64_t files, std::uint64_t bytes)>;

constexpr int kMinLevel = 1;
constexpr int kMaxLevel = 19;
constexpr int kDefaultLevel = 12;

/**
 * Writes a signed package. The same tree, info, key and level give the same bytes.
 *
 * @param archive_fd  an empty file, open for writing
 * @param path        its path; its directory lends space for the payload
 * @return the package's size
 * @throws PublishError naming the file that cannot be read or changes while it is read
 */
std::uint64_t WritePackage(const Tree& tree, const PackageInfo& info, const archive::SigningKey& key, int level,
    int archive_fd, const std::string& path, const PackProgress& progress);

} // namespace tarn::publisher

#endif
