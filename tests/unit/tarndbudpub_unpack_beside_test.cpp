#include "publisher/common/publish_error.h"
#include "publisher/diff/expected_tree.h"
#include "publisher/packages/package.h"
#include "publisher/packages/unpack_beside.h"
#include "publisher_fixture.h"
#include "temporary_directory.h"

#include <chrono>
#include <optional>
#include <set>

namespace tarn::publisher {
namespace {

using test::ReadFile;
using test::WriteFile;

class UnpackBesideTest : public test::PublisherTest {
protected:
	/** Publishes the tree, and unpacks its package beside the directory "old". */
	void Unpack() {
		Publish();
		const archive::SigningKey key = archive::SigningKey::Load(options_.key_file, [](const std::string&) {});
		PackageReader(key, {}).UnpackNextTo(Package(1), {"db", "", 1}, root_.Path(), "new", "old");
	}
	void PutOld(const std::string& name, const std::string& content) { WriteFile(root_ / ("old/" + name), content); }
	std::string New(const std::string& name) const { return root_ / ("new/" + name); }
	bool IsShared(const std::string& name) const {
		return std::filesystem::equivalent(root_ / ("old/" + name), New(name));
	}

	test::TemporaryDirectory root_;
};

TEST_F(UnpackBesideTest, SharesWhatIsTheSameAndNothingElse) {
	const std::string large(3000000, 'x');
	for (const char* name : {"same", "sub/same", "changed", "longer", "new"}) {
		Put(name, "content");
	}
	Put("changed at the end", large + "1");
	Put("empty", "");
	for (const char* name : {"same", "sub/same", "longer", "gone"}) {
		PutOld(name, "content");
	}
	PutOld("changed", "CONTENT");
	PutOld("longer", "content, and more");
	PutOld("changed at the end", large + "2");
	PutOld("empty", "");
	Unpack();
	for (const char* name : {"same", "sub/same", "empty"}) {
		EXPECT_TRUE(IsShared(name)) << name;
	}
	for (const char* name : {"changed", "longer", "changed at the end"}) {
		EXPECT_FALSE(IsShared(name)) << name;
	}
	EXPECT_EQ(ReadFile(New("changed")), "content");
	EXPECT_EQ(ReadFile(New("longer")), "content");
	EXPECT_EQ(ReadFile(New("new")), "content");
	EXPECT_EQ(ReadFile(New("changed at the end")), large + "1");
	EXPECT_EQ(ReadFile(root_ / "old/changed at the end"), large + "2");
	EXPECT_FALSE(std::filesystem::exists(New("gone")));
}

TEST_F(UnpackBesideTest, SharesNoFileOfAnotherKindOrPermission) {
	Put("program");
	std::filesystem::permissions(directory_ / "tree/program", std::filesystem::perms(0755));
	Put("link");
	Put("directory");
	PutOld("program", "content");
	PutOld("other", "content");
	std::filesystem::create_symlink("other", root_ / "old/link");
	std::filesystem::create_directories(root_ / "old/directory");
	Unpack();
	EXPECT_FALSE(IsShared("program"));
	EXPECT_EQ(std::filesystem::status(New("program")).permissions(), std::filesystem::perms(0755));
	EXPECT_FALSE(std::filesystem::is_symlink(std::filesystem::symlink_status(New("link"))));
	EXPECT_EQ(ReadFile(New("directory")), "content");
}

class ExpectedTreeTest : public UnpackBesideTest {
protected:
	ExpectedTreeTest() {
		for (const char* name : {"same", "sub/changed", "program"}) {
			Put(name, std::string("content of ") + name);
		}
		PutOld("same", "content of same");
		PutOld("sub/changed", "before");
		Unpack();
		expected_.emplace(ListTree(root_ / "new"), std::set<std::string>());
		// As devices' code does it.
		for (const char* name : {"sub/changed", "program"}) {
			std::filesystem::remove(Old(name));
			PutOld(name, std::string("content of ") + name);
		}
	}
	std::string Old(const std::string& name) const { return root_ / ("old/" + name); }
	/** What is wrong with the old tree as it is now; empty when nothing is. */
	std::string Difference() const {
		try {
			expected_->Require(ListTree(root_ / "old"));
		} catch (const publisher::PublishError& error) {
			return error.what();
		}
		return "";
	}

	std::optional<ExpectedTree> expected_;
};

TEST_F(ExpectedTreeTest, KeepsNoFileButWhatTakesNoSpace) {
	EXPECT_TRUE(std::filesystem::exists(New("same")));
	EXPECT_FALSE(std::filesystem::exists(New("sub/changed")));
	EXPECT_FALSE(std::filesystem::exists(New("program")));
}

TEST_F(ExpectedTreeTest, IsHeldAgainstEveryByteNameAndPermission) {
	EXPECT_EQ(Difference(), "");
	PutOld("sub/changed", "CONTENT of sub/changed");
	EXPECT_EQ(Difference(), "devices would get another \"sub/changed\" by it");
	PutOld("sub/changed", "content of sub/changed");
	std::filesystem::permissions(Old("program"), std::filesystem::perms(0755));
	EXPECT_EQ(Difference(), "devices would get another \"program\" by it");
	std::filesystem::permissions(Old("program"), std::filesystem::perms(0644));
	PutOld("unknown", "");
	EXPECT_EQ(Difference(), "devices would get another \"unknown\" by it");
	std::filesystem::remove(Old("unknown"));
	std::filesystem::create_directory(Old("empty"));
	EXPECT_EQ(Difference(), "devices would keep 1 empty directories by it");
	std::filesystem::remove(Old("empty"));
	std::filesystem::remove(Old("same"));
	EXPECT_EQ(Difference(), "devices would get another \"same\" by it");
	PutOld("same", "CONTENT of same");
	EXPECT_EQ(Difference(), "devices would get another \"same\" by it");
	PutOld("same", "content of same");
	EXPECT_EQ(Difference(), "");
}

TEST_F(ExpectedTreeTest, TellsWhenASharedFileIsWrittenTo) {
	std::filesystem::last_write_time(
	    Old("same"), std::filesystem::last_write_time(New("same")) + std::chrono::nanoseconds(1000));
	EXPECT_EQ(Difference(), "devices would write to \"same\", which the package does not name");
}

} // namespace
} // namespace tarn::publisher
