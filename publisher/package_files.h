#ifndef PUBLISHER_PACKAGE_FILES_H
#define PUBLISHER_PACKAGE_FILES_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::publisher {

/** A file of the repository that has a package's name; nothing is known of its content. */
struct PackageFile {
	std::string path;
	int data_version = 0;
	bool is_diff = false;
};

/** The number that all of a text's digits make; none when there is anything else in it. */
std::optional<int> ParseVersion(std::string_view digits);

/**
 * The files named "<id>_v<version>.tarn" and "<id>_d<version>.tarn" in a directory, by version, full packages first;
 * none when the directory is missing. Throws PublishError when it cannot be read.
 */
std::vector<PackageFile> ListPackageFiles(const std::string& directory, const std::string& id);

/** The databases that a directory has directories of packages for, in byte order; none when it is missing. */
std::vector<std::string> ListPackagedIds(const std::string& directory);

} // namespace tarn::publisher

#endif
