/** @file A database published in many versions, and devices that follow by diff packages. */
#ifndef TESTS_UNIT_SUPPORT_DIFF_FIXTURE_H
#define TESTS_UNIT_SUPPORT_DIFF_FIXTURE_H

#include "device_tree.h"
#include "publisher_fixture.h"

#include <map>
#include <string>
#include <vector>

namespace tarn::test {

/** How a diff package carries each file, by name: "whole", "vcdiff", "sql" or "-". */
using Kinds = std::map<std::string, std::string>;

/** Runs SQL on a database file, which is created when it is missing. */
void ExecuteSql(const std::string& database, const std::string& sql);
/** SQL that makes a table t(i INTEGER PRIMARY KEY, a, b) of 3,000 rows whose index n on a lacks the last row. */
std::string IndexWithoutEntry();
/** Text that compresses badly and differs with the seed. */
std::string Noise(std::size_t size, unsigned seed);
/** Gives a file another content, by its name in the directory in which a publisher is at work. */
void ChangeInWorkDirectory(const std::string& repository, const std::string& name);

class DiffPublisherTest : public PublisherTest {
protected:
	DiffPublisherTest();

	std::string TreePath(const std::string& name) const { return options_.tree + "/" + name; }
	/** Runs SQL on a database file of the tree. */
	void Sql(const std::string& name, const std::string& sql) const { ExecuteSql(TreePath(name), sql); }
	std::string Diff(int version) const;
	/** The diff packages that lead from a version to another. */
	std::vector<std::string> Diffs(int from, int to) const;
	/** Versions for which the document names a diff package. */
	std::vector<int> OfferedDiffs() const;
	Kinds KindsIn(int version) const;
	Json::Value MetadataOf(int version) const;
	/** What a device has that installs a version and comes to another by diff packages, all at once. */
	std::map<std::string, std::string> Followed(int from, int to) const;
	std::map<std::string, std::string> PublishedTree() const { return FilesBelow(options_.tree); }
	std::string PublicKey() const { return directory_ / "key.pub"; }
};

} // namespace tarn::test

#endif
