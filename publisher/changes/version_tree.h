/** @file The tree of a published version, made again from the packages that are kept. */
#ifndef PUBLISHER_CHANGES_VERSION_TREE_H
#define PUBLISHER_CHANGES_VERSION_TREE_H

#include "publisher/changes/changes.h"
#include "publisher/common/files.h"
#include "publisher/packages/package.h"
#include "publisher/repository/repository.h"

#include <set>
#include <string>

namespace tarn::publisher {

/** Where trees of a database's versions come from. */
struct VersionSource {
	const Repository& repository;
	const PackageReader& reader;
	std::string id;
};

struct VersionTree {
	ComparedVersion version;
	std::set<std::string> scripted; // files that scripts have changed: the published content in bytes of their own
};

/**
 * Makes a version's tree in a work directory: from its full package, or from the nearest full package below it and the
 * diff packages in between, which are applied as devices do. Through the empty packages of a withdrawal the tree does
 * not change; so the content of a withdrawn version is known from its kept full package only.
 *
 * @param name     of the directory that is made for the tree
 * @param earlier  name of a tree in the work directory whose files may get second names: write to neither; or empty
 * @throws PublishError naming the packages that are missing or cannot be used
 */
[[nodiscard]] VersionTree MakeVersionTree(const VersionSource& source, int version, const WorkDirectory& work,
    const std::string& name, const std::string& earlier);

} // namespace tarn::publisher

#endif
