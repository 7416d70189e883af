#include "dataupdate/internal/staged_changes.h"
#include "library_test.h"
#include "staged_changes_test.h"

#include <boost/filesystem/exception.hpp>
#include <gmock/gmock.h>

#include <sys/mount.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;
using testing::SizeIs;

constexpr std::size_t kFew = 2;
constexpr std::size_t kMany = 1000;

/** A database whose directory "d" goes with all its files. */
class VanishingDirectoryTest : public StagedChangesTest {
protected:
	VanishingDirectoryTest() { WriteFile(Installed("stays"), "old"); }

	void DeleteDirectory(const std::string& directory, int files = 5) {
		Delete(directory);
		for (int number = 0; number < files; ++number) {
			const std::string name = directory + "/" + std::to_string(number);
			WriteFile(Installed(name), "old");
			Delete(name);
		}
	}
	/** What was moved away, at its place in the temporary area. */
	std::vector<std::string> Gone() const {
		std::vector<std::string> gone;
		for (const std::string& name : EntriesBelow(directory_ / "volume/area/sum")) {
			if (fs::path(name).extension() == ".gone") {
				gone.push_back(name);
			}
		}
		return gone;
	}
};

TEST_F(VanishingDirectoryTest, GoesByOneRenameWithAllItsFiles) {
	DeleteDirectory("d");
	EXPECT_THAT(Exchanged(kFew), ElementsAre("d"));
	const StagedChanges changes = Staged(kFew);
	EXPECT_EQ(ReadFile(Installed("d/4")), "old");
	EXPECT_EQ(RenamesOf(changes), 1);
	EXPECT_THAT(EntriesBelow(Installed("")), ElementsAre("stays"));
	EXPECT_THAT(EntriesBelow(Place() + "/0/d"), SizeIs(5)) << "removed after the lock, with the temporary area";
}

TEST_F(VanishingDirectoryTest, GoesByOneRenameWithItsDirectories) {
	DeleteDirectory("d");
	DeleteDirectory("d/one");
	DeleteDirectory("d/two/deep");
	fs::create_directories(Installed("d/empty"));
	EXPECT_THAT(Exchanged(kFew), ElementsAre("d"));
	EXPECT_EQ(RenamesOf(Staged(kFew)), 1);
	EXPECT_THAT(EntriesBelow(Installed("")), ElementsAre("stays"));
}

TEST_F(VanishingDirectoryTest, GoesAfterThoseInItWhereTheseAreExchanged) {
	DeleteDirectory("d", 0);
	DeleteDirectory("d/one");
	DeleteDirectory("d/two");
	EXPECT_THAT(Exchanged(3), ElementsAre("d/one", "d/two"));
	EXPECT_EQ(RenamesOf(Staged(3)), 2);
	EXPECT_THAT(EntriesBelow(Installed("")), ElementsAre("stays"));
}

TEST_F(VanishingDirectoryTest, GoesFileByFileWhereFewChange) {
	DeleteDirectory("d");
	DeleteDirectory("d/sub");
	const StagedChanges changes = Staged(kMany);
	EXPECT_FALSE(fs::exists(Place()));
	EXPECT_EQ(RenamesOf(changes), 10);
	EXPECT_THAT(EntriesBelow(Installed("")), ElementsAre("stays"));
	EXPECT_THAT(Gone(), SizeIs(10)) << "a large file was removed while readers wait";
}

TEST_F(VanishingDirectoryTest, StaysWithAForeignFile) {
	for (const std::size_t most : {kFew, kMany}) {
		changes_.clear();
		DeleteDirectory("d");
		DeleteDirectory("d/sub");
		WriteFile(Installed("d/foreign"), "kept");
		RenamesOf(Staged(most));
		EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("d", "d/foreign", "stays")) << most;
		EXPECT_EQ(ReadFile(Installed("d/foreign")), "kept");
		fs::remove_all(directory_ / "volume/area");
	}
}

TEST_F(VanishingDirectoryTest, StaysWithAForeignFileFurtherDown) {
	DeleteDirectory("d");
	DeleteDirectory("d/sub");
	WriteFile(Installed("d/sub/foreign"), "kept");
	EXPECT_EQ(RenamesOf(Staged(kFew)), 1);
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("d", "d/sub", "d/sub/foreign", "stays"));
}

TEST_F(VanishingDirectoryTest, StaysWithAForeignFileThatCameMeanwhile) {
	DeleteDirectory("d");
	DeleteDirectory("d/sub");
	const StagedChanges changes = Staged(kFew);
	WriteFile(Installed("d/sub/foreign"), "added");
	RenamesOf(changes);
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("d", "d/sub", "d/sub/foreign", "stays"));
	EXPECT_EQ(ReadFile(Installed("d/sub/foreign")), "added");
}

TEST_F(VanishingDirectoryTest, StaysWithFilesThatALaterVersionPutsThere) {
	DeleteDirectory("d");
	Override("d/new");
	EXPECT_EQ(RenamesOf(Staged(kFew)), 1);
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("d", "d/new", "stays"));
	EXPECT_EQ(ReadFile(Installed("d/new")), "new d/new");
}

TEST_F(VanishingDirectoryTest, GivesItsNameToAFileByOneRename) {
	DeleteDirectory("d");
	Override("d");
	EXPECT_EQ(RenamesOf(Staged(kFew)), 1);
	EXPECT_EQ(ReadFile(Installed("d")), "new d");
}

TEST_F(VanishingDirectoryTest, StaysWithAForeignFileWhenWhatWasMadeReadyIsGone) {
	DeleteDirectory("d");
	WriteFile(Installed("d/foreign"), "kept");
	const StagedChanges changes = Staged(kFew);
	fs::remove_all(Place() + "/0/d");
	RenamesOf(changes);
	EXPECT_EQ(ReadFile(Installed("d/foreign")), "kept");
}

TEST_F(VanishingDirectoryTest, GoesFileByFileWhereItCannotBeMoved) {
	DeleteDirectory("d");
	const StagedChanges changes = Staged(kFew);
	system_.Fail("renameat2", EINVAL, 1);
	EXPECT_EQ(RenamesOf(changes), 6);
	EXPECT_THAT(EntriesBelow(Installed("")), ElementsAre("stays"));
	EXPECT_THAT(Gone(), SizeIs(5));
}

TEST_F(VanishingDirectoryTest, GoesWithFilesThatCannotBeMoved) {
	DeleteDirectory("d");
	const StagedChanges changes = Staged(kMany);
	system_.Fail("renameat2", EXDEV, 2, 3);
	RenamesOf(changes);
	EXPECT_THAT(EntriesBelow(Installed("")), ElementsAre("stays"));
	EXPECT_THAT(Gone(), SizeIs(3));
}

TEST_F(VanishingDirectoryTest, CanBeDeletedByAnotherTryAfterAFailureInTheMiddle) {
	DeleteDirectory("d");
	WriteFile(Installed("d/mounted"), "");
	Delete("d/mounted");
	const std::string path = Installed("d/mounted");
	if (mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
		GTEST_SKIP() << "nothing can be mounted here";
	}
	EXPECT_THROW(Staged(kFew).Install(), boost::filesystem::filesystem_error);
	EXPECT_THAT(EntriesBelow(Installed("")), UnorderedElementsAre("d", "d/mounted", "stays"));
	ASSERT_EQ(umount(path.c_str()), 0);
	RenamesOf(Staged(kFew));
	EXPECT_THAT(EntriesBelow(Installed("")), ElementsAre("stays"));
}

} // namespace
} // namespace tarn::dataupdate
