#include "dataupdate/internal/patch_description.h"
#include "library_test.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

class PatchConflictsTest : public testing::Test {
protected:
	std::string Installed(const std::string& name) const { return directory_ / name; }
	void Put(const std::string& name) { infos_[name].operation = ModifyInfo::kOverride; }
	void Delete(const std::string& name) { infos_[name].operation = ModifyInfo::kDelete; }
	void ExpectNone() const { EXPECT_NO_THROW(CheckConflicts(infos_, directory_.Path())); }
	void ExpectInTheWay(const std::string& name, const std::string& path) const {
		EXPECT_EQ(MessageOf([this] { CheckConflicts(infos_, directory_.Path()); }),
		    "In the way of " + name + ": " + Installed(path));
	}

	test::TemporaryDirectory directory_;
	std::map<std::string, ModifyInfo> infos_;
};

TEST_F(PatchConflictsTest, AreNoneWhereFilesAreReplacedMadeAndDeleted) {
	WriteFile(Installed("f"), "old");
	WriteFile(Installed("sub/gone"), "old");
	Put("f");
	Put("sub/new");
	Put("deep/er/new");
	Delete("sub/gone");
	ExpectNone();
}

TEST_F(PatchConflictsTest, AreNoneWhereAFileAndADirectoryTakeTurns) {
	WriteFile(Installed("a"), "old");
	WriteFile(Installed("b/c/d"), "old");
	Delete("a");
	Put("a/f");
	Put("b");
	Delete("b/c/d");
	ExpectNone();
}

TEST_F(PatchConflictsTest, AreFilesThatTheChainDoesNotKnow) {
	WriteFile(Installed("a"), "foreign");
	Put("a/f");
	ExpectInTheWay("a/f", "a");
	infos_.clear();
	WriteFile(Installed("b/foreign"), "foreign");
	Put("b");
	ExpectInTheWay("b", "b/foreign");
}

TEST_F(PatchConflictsTest, AreLinksAboveAFile) {
	fs::create_directory_symlink("/tmp", Installed("link"));
	Put("link/f");
	ExpectInTheWay("link/f", "link");
}

TEST_F(PatchConflictsTest, AreNewFilesAboveEachOther) {
	Put("a");
	Put("a/b");
	ExpectInTheWay("a/b", "a");
}

TEST_F(PatchConflictsTest, AreJournalsOfSomebodyElse) {
	WriteFile(Installed("db-wal"), "");
	Put("db");
	ExpectNone();
	WriteFile(Installed("db-wal"), "frames");
	ExpectInTheWay("db", "db-wal");
	Put("db-wal");
	ExpectNone();
	infos_.erase("db-wal");
	fs::remove(Installed("db-wal"));
	WriteFile(Installed("db-journal"), "pages");
	ExpectInTheWay("db", "db-journal");
}

TEST_F(PatchConflictsTest, AreFoundWhateverTheSpelling) {
	WriteFile(Installed("b/c"), "old");
	Put("./b");
	Delete("b//c");
	ExpectNone();
	Put("b/./new");
	ExpectInTheWay("b/new", "b");
}

TEST_F(PatchConflictsTest, CannotBeLookedForEverywhere) {
	Put(std::string(300, 'x') + "/f");
	EXPECT_EQ(
	    MessageOf([this] { CheckConflicts(infos_, directory_.Path()); }).compare(0, 24, "Fail to find conflicts: "), 0);
}

} // namespace
} // namespace tarn::dataupdate
