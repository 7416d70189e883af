#include "staged_changes_test.h"

#include "dataupdate/internal/staged_changes.h"
#include "dataupdate/interruption.h"
#include "fake_platform.h"
#include "library_test.h"

#include <boost/filesystem/exception.hpp>
#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

using DirectoriesToExchangeTest = StagedChangesTest;

TEST_F(DirectoriesToExchangeTest, AreNoneForFewChanges) {
	ChangeSome({"a", "b/c"});
	EXPECT_THAT(Exchanged(6), IsEmpty());
}

TEST_F(DirectoriesToExchangeTest, AreAsManyAsBringTheRenamesBelowTheBound) {
	ChangeSome({"a", "b", "c"});
	EXPECT_THAT(Exchanged(7), ElementsAre("c"));
	EXPECT_THAT(Exchanged(6), ElementsAre("b", "c"));
	EXPECT_THAT(Exchanged(3), ElementsAre("a", "b", "c"));
}

TEST_F(DirectoriesToExchangeTest, AreAsFarDownAsCanBe) {
	ChangeSome({"top/a", "top/b", "top/c/deep"});
	EXPECT_THAT(Exchanged(4), ElementsAre("top/a", "top/b", "top/c/deep"));
	EXPECT_THAT(Exchanged(2), ElementsAre("top"));
}

TEST_F(DirectoriesToExchangeTest, AreNoneForFilesAtTheTop) {
	for (char file = 'a'; file < 'z'; ++file) {
		Override(std::string(1, file));
	}
	ChangeSome({"dir"});
	EXPECT_THAT(Exchanged(3), ElementsAre("dir"));
}

TEST_F(DirectoriesToExchangeTest, HoldTheirOwnChangesOnly) {
	ChangeSome({"a"});
	Override("a-b");
	Override("a0");
	EXPECT_THAT(Exchanged(3), ElementsAre("a"));
	StagedChanges changes = Staged(3);
	EXPECT_EQ(RenamesOf(changes), 3);
	ExpectChanged();
}

TEST_F(DirectoriesToExchangeTest, IncludeNewOnesAtTheHighestLevel) {
	ChangeSome({"a"});
	for (const char* name : {"new/deep/1", "new/deep/2", "new/deep/3"}) {
		Override(name);
	}
	EXPECT_THAT(Exchanged(4), ElementsAre("new"));
}

TEST_F(DirectoriesToExchangeTest, AreNotWhatHasAFilesNameOrIsALink) {
	ChangeSome({"elsewhere"});
	for (const char* name : {"file/1", "file/2", "link/1", "link/2"}) {
		Override(name);
	}
	Delete("file");
	WriteFile(Installed("file"), "old");
	fs::create_directory_symlink("elsewhere", Installed("link"));
	EXPECT_THAT(Exchanged(1), ElementsAre("elsewhere"));
}

TEST_F(StagedChangesTest, ChangesFewFilesByOneRenameEachAndMakesNothingReady) {
	ChangeSome({"a", "b"});
	StagedChanges changes = Staged(6);
	EXPECT_FALSE(fs::exists(Place()));
	EXPECT_EQ(RenamesOf(changes), 6);
	ExpectChanged();
}

TEST_F(StagedChangesTest, ChangesManyFilesByOneRenameForEachDirectory) {
	ChangeSome({"a", "b", "c/deep"});
	Delete("a/9");
	Override("b/sub/new");
	Override("new/1");
	Override("new/sub/2");
	const ino_t kept = StatusOf(Installed("a/5")).st_ino;
	const ino_t whole = StatusOf(directory_ / "volume/db").st_ino;
	StagedChanges changes = Staged(4);
	EXPECT_EQ(ReadFile(Installed("a/0")), "old");
	EXPECT_FALSE(fs::exists(Installed("new")));
	EXPECT_EQ(RenamesOf(changes), 4);
	ExpectChanged();
	EXPECT_EQ(StatusOf(Installed("a/5")).st_ino, kept);
	EXPECT_EQ(StatusOf(directory_ / "volume/db").st_ino, whole);
	EXPECT_EQ(ReadFile(Installed("c/deep/9")), "old");
}

TEST_F(StagedChangesTest, ChangesEachFileOnceBesideDirectoriesWhoseNamesBeginAlike) {
	ChangeSome({"a", "a-b"});
	for (const char* name : {"a-", "a0", "b"}) {
		Override(name);
	}
	const StagedChanges changes = Staged(5);
	EXPECT_EQ(RenamesOf(changes), 5); // Two directories, and three files.
	ExpectChanged();
}

TEST_F(StagedChangesTest, KeepsTheTimeOfADirectoryInWhichNoNameChanges) {
	ChangeSome({"top/a", "top/b"});
	WriteFile(Installed("top/a/still/file"), "old");
	const std::array<timespec, 2> times = {timespec{1000, 1}, timespec{2000, 2}};
	for (const char* name : {"top/a/still", "top/a", "top", ""}) {
		ASSERT_EQ(utimensat(AT_FDCWD, Installed(name).c_str(), times.data(), 0), 0);
	}
	RenamesOf(Staged(2));
	ExpectChanged();
	EXPECT_EQ(StatusOf(Installed("")).st_mtim.tv_sec, 2000);
	EXPECT_EQ(StatusOf(Installed("top")).st_mtim.tv_sec, 2000);
	EXPECT_EQ(StatusOf(Installed("top/a/still")).st_mtim.tv_sec, 2000);
	EXPECT_GT(StatusOf(Installed("top/a")).st_mtim.tv_sec, 2000);
}

TEST_F(StagedChangesTest, LosesNothingThatWasPutThereMeanwhile) {
	ChangeSome({"a", "b"});
	const StagedChanges changes = Staged(2);
	WriteFile(Installed("a/foreign"), "added");
	WriteFile(Installed("a/moved"), "by another name");
	fs::rename(Installed("a/moved"), Installed("a/9"));
	fs::remove(Installed("a/8"));
	WriteFile(Installed("b/9"), "written");
	EXPECT_EQ(RenamesOf(changes), 4) << "three files and one directory";
	ExpectChanged();
	EXPECT_EQ(ReadFile(Installed("a/foreign")), "added");
	EXPECT_EQ(ReadFile(Installed("a/9")), "by another name");
	EXPECT_FALSE(fs::exists(Installed("a/8")));
	EXPECT_EQ(ReadFile(Installed("b/9")), "written");
}

TEST_F(StagedChangesTest, LosesNothingWhereADirectoryCameOrWentMeanwhile) {
	ChangeSome({"a"});
	Override("new/1");
	Override("new/2");
	const StagedChanges changes = Staged(2);
	WriteFile(Installed("new/foreign"), "added");
	fs::rename(Installed("a"), directory_ / "volume/gone");
	RenamesOf(changes);
	ExpectChanged();
	EXPECT_EQ(ReadFile(Installed("new/foreign")), "added");
	EXPECT_FALSE(fs::exists(Installed("a/9")));
}

TEST_F(StagedChangesTest, ChangesFileByFileWhereDirectoriesCannotBeExchanged) {
	ChangeSome({"a", "b"});
	const StagedChanges changes = Staged(2);
	system_.Fail("renameat2", EINVAL, 1);
	RenamesOf(changes);
	ExpectChanged();
	EXPECT_EQ(ReadFile(Installed("a/9")), "old");
}

TEST_F(StagedChangesTest, ChangesFileByFileWhatCannotBeLinked) {
	ChangeSome({"a", "b"});
	const test::SyslogCapture log;
	system_.Fail("linkat", EMLINK, 1, 2);
	StagedChanges changes = Staged(2);
	EXPECT_THAT(EntriesBelow(Place()), testing::Contains("0/b/9"));
	EXPECT_EQ(RenamesOf(changes), 4);
	ExpectChanged();
	const std::vector<Line> lines = LinesOf(log, "staging.cpp");
	ASSERT_EQ(lines.size(), 1U);
	EXPECT_EQ(lines[0].priority, LOG_INFO);
	EXPECT_THAT(lines[0].text, AllOf(StartsWith("Readers will wait for every file: "), HasSubstr(Installed("a/"))));
}

TEST_F(StagedChangesTest, TellsOneReasonForAllDirectories) {
	ChangeSome({"a", "b"});
	const test::SyslogCapture log;
	system_.Fail("linkat", EPERM, 1000);
	EXPECT_EQ(RenamesOf(Staged(2)), 6);
	ExpectChanged();
	EXPECT_EQ(LinesOf(log, "staging.cpp").size(), 1U);
}

TEST_F(StagedChangesTest, ChangesFileByFileWhereNothingCanBeMadeReady) {
	ChangeSome({"a", "b"});
	platform_.mkdir_works = false;
	const test::SyslogCapture log;
	EXPECT_EQ(RenamesOf(Staged(2)), 6);
	ExpectChanged();
	EXPECT_EQ(LinesOf(log, "staging.cpp").size(), 1U);
}

/** The kinds of mounts, by the file system's type; "" is a second mount point of the same file system. */
class StagedMountTest : public StagedChangesTest, public testing::WithParamInterface<const char*> {};

TEST_P(StagedMountTest, HasNothingMadeReadyWhereEntriesCannotBeRenamedTo) {
	const std::string type = GetParam();
	const std::string installed = directory_ / "volume/db";
	fs::create_directories(Place());
	if (mount(installed.c_str(), installed.c_str(), type.c_str(), type.empty() ? MS_BIND : 0, nullptr) != 0) {
		GTEST_SKIP() << "nothing can be mounted here";
	}
	ChangeSome({"a", "b"});
	const test::SyslogCapture log;
	{
		const StagedChanges changes = Staged(2);
		EXPECT_THAT(EntriesBelow(Place()), IsEmpty());
		changes.Install();
	}
	ExpectChanged();
	EXPECT_THAT(LinesOf(log, "staging.cpp"), IsEmpty()) << "it was found out by a step that failed";
	ASSERT_EQ(umount(installed.c_str()), 0);
}

INSTANTIATE_TEST_SUITE_P(All, StagedMountTest, testing::Values("tmpfs", ""));

TEST_F(StagedChangesTest, MakesNewDirectoriesInPlaceWhereTheyGetTheirGroupFromTheOneAbove) {
	ASSERT_EQ(chmod(Installed("").c_str(), 02755), 0);
	Override("new/1");
	Override("new/2");
	RenamesOf(Staged(1));
	ExpectChanged();
	EXPECT_NE(StatusOf(Installed("new")).st_mode & S_ISGID, 0U);
}

TEST_F(StagedChangesTest, UsesNothingThatAKilledRunMadeReady) {
	ChangeSome({"a", "b"});
	WriteFile(Place() + "/0/foreign", "of a killed run");
	RenamesOf(Staged(2));
	ExpectChanged();
	EXPECT_FALSE(fs::exists(Installed("a/foreign")));
}

TEST_F(StagedChangesTest, EndsWhenItIsAskedTo) {
	ChangeSome({"a", "b"});
	LetTimePass();
	StagedChanges changes(changes_, directory_ / "volume/db", Place(), 2);
	system_.on_call = [](const std::string& call) {
		if (call == "linkat") {
			RequestInterruption();
		}
	};
	EXPECT_EQ(MessageOf([&] { changes.Stage(); }), "Interrupted");
	system_.on_call = nullptr;
	ForgetInterruption();
}

/** A tree and changes to it of all kinds, of files that turn into directories, links and what nobody knows. */
class RandomChanges {
public:
	explicit RandomChanges(unsigned seed) : source_(seed) {}

	void Plant(const std::string& root) {
		for (int number = 0; number < 25; ++number) {
			_Plant(fs::path(root) / _Name());
		}
	}

	std::map<std::string, std::int32_t> Draw() {
		std::map<std::string, std::int32_t> operations;
		for (int number = 0; number < 12; ++number) {
			operations[_Name()] = _Below(3) == 0 ? ModifyInfo::kDelete : ModifyInfo::kOverride;
		}
		return operations;
	}

private:
	int _Below(int end) { return std::uniform_int_distribution<int>(0, end - 1)(source_); }
	std::string _Name() {
		std::string name(1, static_cast<char>('a' + _Below(3)));
		for (int depth = _Below(4); depth > 0; --depth) {
			name += std::string("/") + static_cast<char>('a' + _Below(3));
		}
		return name;
	}
	void _Plant(const fs::path& path) {
		std::error_code is_in_the_way;
		fs::create_directories(path.parent_path(), is_in_the_way);
		if (is_in_the_way || fs::exists(fs::symlink_status(path))) {
			return;
		}
		if (_Below(5) == 0) {
			fs::create_directory(path);
		} else if (_Below(8) == 0) {
			fs::create_symlink("nowhere", path);
		} else {
			WriteFile(path, "old");
		}
	}

	std::mt19937 source_;
};

constexpr long kLongAgo = 1000;

/** Every entry with its kind, mode and content, and whether a directory has kept its time. */
std::map<std::string, std::string> Description(const std::string& root) {
	std::map<std::string, std::string> entries;
	for (const std::string& name : EntriesBelow(root)) {
		const std::string path = fs::path(root) / name;
		const struct stat status = StatusOf(path);
		std::string& text = entries[name] = std::to_string(status.st_mode);
		if (S_ISREG(status.st_mode)) {
			text += " " + ReadFile(path);
		} else if (S_ISDIR(status.st_mode)) {
			text += status.st_mtim.tv_sec == kLongAgo ? " as before" : " changed";
		}
	}
	return entries;
}

class RandomStagedChangesTest : public testing::TestWithParam<unsigned> {
protected:
	/** Installs one of two equal trees' changes; what is then there, or that it cannot be done. */
	std::map<std::string, std::string> Result(const std::string& way, std::size_t most_renames) {
		const std::string root = directory_ / (way + "/db");
		RandomChanges random(GetParam());
		fs::create_directories(root);
		random.Plant(root);
		Changes changes;
		for (const auto& [name, operation] : random.Draw()) {
			ModifyInfo& info = changes[name];
			info.operation = operation;
			info.source = directory_ / (way + "/sum/" + std::to_string(changes.size()));
			WriteFile(info.source, "new " + name);
		}
		for (const std::string& name : EntriesBelow(root)) {
			const std::array<timespec, 2> times = {timespec{kLongAgo, 0}, timespec{kLongAgo, 0}};
			utimensat(AT_FDCWD, (fs::path(root) / name).c_str(), times.data(), AT_SYMLINK_NOFOLLOW);
		}
		LetTimePass();
		StagedChanges staged(changes, root, directory_ / (way + "/staged"), most_renames);
		staged.Stage();
		try {
			staged.Install();
		} catch (const boost::filesystem::filesystem_error&) {
			return {{"", "cannot be done"}};
		}
		return Description(root);
	}

	test::TemporaryDirectory directory_;
	test::FakePlatform platform_;
};

TEST_P(RandomStagedChangesTest, EndsAsOneChangeAfterTheOtherDoes) {
	const auto expected = Result("files", 1000);
	for (const std::size_t most : {1U, 3U, 6U}) {
		EXPECT_EQ(Result("directories" + std::to_string(most), most), expected) << most;
	}
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomStagedChangesTest, testing::Range(1U, 41U));

} // namespace
} // namespace tarn::dataupdate
