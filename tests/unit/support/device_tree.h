/** @file What a device has installed, brought there by the library's own code. */
#ifndef TESTS_UNIT_SUPPORT_DEVICE_TREE_H
#define TESTS_UNIT_SUPPORT_DEVICE_TREE_H

#include "temporary_directory.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace tarn::test {

/** Unpacks a package that must be signed by a key into an existing directory. */
void UnpackPackage(const std::string& package, const std::string& public_key, const std::string& directory);

/**
 * The files below a directory by relative name: their content, or its digest when it is long, with "x " before it when
 * they are executable.
 */
std::map<std::string, std::string> FilesBelow(const std::string& directory);

/** The directories below a directory by relative name. */
std::set<std::string> DirectoriesBelow(const std::string& directory);

class DeviceTree {
public:
	explicit DeviceTree(std::string public_key) : public_key_(std::move(public_key)) {}

	/** Installs the content of a full package in place of what there was. */
	void Install(const std::string& package);
	/** Applies diff packages in turn to working copies, and installs these at the end; throws UpdateError. */
	void Update(const std::vector<std::string>& packages);

	std::string Root() const { return directory_ / "installed"; }
	std::string Path(const std::string& name) const { return Root() + "/" + name; }
	std::map<std::string, std::string> Files() const { return FilesBelow(Root()); }
	std::set<std::string> Directories() const { return DirectoriesBelow(Root()); }

private:
	TemporaryDirectory directory_;
	std::string public_key_;
};

} // namespace tarn::test

#endif
