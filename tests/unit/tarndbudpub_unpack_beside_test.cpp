#include "publisher/package.h"
#include "publisher/publish_error.h"
#include "publisher/unpack_beside.h"
#include "publisher_fixture.h"
#include "temporary_directory.h"

#include <chrono>

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

TEST_F(UnpackBesideTest, TellsWhenASharedFileIsWrittenTo) {
	Put("same");
	Put("changed");
	PutOld("same", "content");
	PutOld("changed", "CONTENT");
	Unpack();
	const SharedFiles shared(ListTree(root_ / "new"));
	std::filesystem::remove(root_ / "old/changed");
	WriteFile(New("changed"), "not shared");
	EXPECT_NO_THROW(shared.RequireUntouched());
	std::filesystem::last_write_time(
	    root_ / "old/same", std::filesystem::last_write_time(New("same")) + std::chrono::nanoseconds(1000));
	EXPECT_THROW(shared.RequireUntouched(), publisher::PublishError);
}

} // namespace
} // namespace tarn::publisher
