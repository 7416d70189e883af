/** @file What a diff package has to make of the tree before it, held in less space than the tree. */
#ifndef PUBLISHER_DIFF_EXPECTED_TREE_H
#define PUBLISHER_DIFF_EXPECTED_TREE_H

#include "publisher/packages/tree.h"

#include <filesystem>
#include <map>
#include <set>
#include <string>

namespace tarn::publisher {

/**
 * The published tree, against which the result of devices' code is held. A file that has another name in the tree which
 * that code changes stays, and may not be written to: a comparison could not tell, for both would change. A database
 * that a script changes stays as well, because its content is compared, not its bytes. Of every other file the digest
 * is noted, and the file is removed.
 */
class ExpectedTree {
public:
	/**
	 * @param tree      its files are removed as said above
	 * @param scripted  names of the databases that scripts change
	 */
	ExpectedTree(const Tree& tree, const std::set<std::string>& scripted);

	/**
	 * Requires the same names, execute permissions and bytes, of scripted databases the same content, and no empty
	 * directory. Throws PublishError naming the first difference.
	 */
	void Require(const Tree& result) const;

private:
	struct File {
		TreeFile file;
		bool is_scripted = false;
		std::filesystem::file_time_type time; ///< Of a shared file, when it was noted.
		std::string digest;                   ///< Empty for a file that stays.
	};

	static bool IsSame(const File& expected, const TreeFile& result);

	std::map<std::string, File> files_;
};

} // namespace tarn::publisher

#endif
