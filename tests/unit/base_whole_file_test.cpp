#include "base/error.h"
#include "base/file_io.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

namespace tarn {
namespace {

using test::EntriesBelow;
using test::ReadFile;
using test::WriteFile;

class WholeFileTest : public testing::Test {
protected:
	std::size_t Entries() const { return EntriesBelow(directory_.Path()).size(); }

	test::TemporaryDirectory directory_;
	std::string path_ = directory_ / "file";
};

TEST_F(WholeFileTest, ReplacesAFileAsAWhole) {
	WriteFile(path_, "old");
	WriteWholeFile(path_, "new");
	EXPECT_EQ(ReadFile(path_), "new");
	struct stat status {};
	ASSERT_EQ(stat(path_.c_str(), &status), 0);
	EXPECT_EQ(status.st_mode & 07777U, 0644U);
	EXPECT_EQ(Entries(), 1U);
}

TEST_F(WholeFileTest, LeavesNothingBesideAFileThatCannotBeReplaced) {
	std::filesystem::create_directory(path_);
	EXPECT_THROW(WriteWholeFile(path_, "new"), Error);
	EXPECT_THROW(WriteWholeFile(directory_ / "missing/file", "new"), Error);
	EXPECT_EQ(Entries(), 1U);
}

TEST_F(WholeFileTest, RemovesWhatAKilledWriterLeftAndNothingElse) {
	WriteFile(directory_ / ".file.Ab12Cd.tmp", "cut o");
	for (const char* other : {"file", ".file.Ab12C.tmp", "file.Ab12Cd.tmp", ".file.Ab12Cd.part", ".Ab12Cd.tmp"}) {
		WriteFile(directory_ / other, "of somebody");
	}
	RemoveLeftDrafts(directory_.Path());
	EXPECT_EQ(Entries(), 5U);
	EXPECT_FALSE(std::filesystem::exists(directory_ / ".file.Ab12Cd.tmp"));
	RemoveLeftDrafts(directory_ / "missing");
}

TEST_F(WholeFileTest, LeavesTheDraftOfARunningWriterAlone) {
	WriteWholeFile(path_, [this](const TextSink& sink) {
		RemoveLeftDrafts(directory_.Path());
		sink("new");
	});
	EXPECT_EQ(ReadFile(path_), "new");
}

TEST_F(WholeFileTest, RemovesADraftThatTookNoPlace) {
	{
		const Draft draft = CreateDraft(path_, 0600);
		ASSERT_TRUE(draft);
		EXPECT_EQ(Entries(), 1U);
	}
	EXPECT_EQ(Entries(), 0U);
}

TEST_F(WholeFileTest, KeepsADraftThatIsToStay) {
	CreateDraft(path_, 0600).Keep();
	EXPECT_EQ(Entries(), 1U);
}

TEST_F(WholeFileTest, RemovesTheDraftThatAnotherReplaces) {
	Draft draft = CreateDraft(directory_ / "first", 0600);
	draft = CreateDraft(directory_ / "second", 0600);
	EXPECT_FALSE(std::filesystem::exists(directory_ / "first"));
	EXPECT_TRUE(std::filesystem::exists(directory_ / "second"));
}

TEST_F(WholeFileTest, LeavesAloneAFileThatItDidNotMake) {
	WriteFile(path_, "old");
	{
		const Draft draft = CreateDraft(path_, 0600);
		EXPECT_EQ(errno, EEXIST);
		EXPECT_FALSE(draft);
	}
	EXPECT_EQ(ReadFile(path_), "old");
}

TEST_F(WholeFileTest, IsLockedOnceNoOtherOpenFileHoldsALock) {
	const auto open_again = [this] {
		return UniqueFd(open(directory_.Path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
	};
	const UniqueFd waiter = open_again();
	UniqueFd holder = open_again();
	ASSERT_EQ(flock(holder.Get(), LOCK_SH), 0);
	int times = 0;
	EXPECT_TRUE(LockExclusively(waiter.Get(), [&] {
		++times;
		holder = UniqueFd();
	}));
	EXPECT_EQ(times, 1);
	EXPECT_TRUE(LockExclusively(waiter.Get(), [&] { ++times; })) << "it is held already";
	EXPECT_EQ(times, 1);
	EXPECT_NE(flock(open_again().Get(), LOCK_SH | LOCK_NB), 0);
}

TEST_F(WholeFileTest, CannotBeLockedWithoutAnOpenFile) {
	bool has_waited = false;
	EXPECT_FALSE(LockExclusively(-1, [&] { has_waited = true; }));
	EXPECT_EQ(errno, EBADF);
	EXPECT_FALSE(has_waited);
}

TEST_F(WholeFileTest, TellsOfADirectoryThatCannotBeSynced) {
	EXPECT_TRUE(SyncDirectory(directory_.Path()));
	EXPECT_FALSE(SyncDirectory(directory_ / "missing"));
	EXPECT_EQ(errno, ENOENT);
}

TEST_F(WholeFileTest, NeverBecomesAStandardStreamThatWasClosed) {
	const pid_t child = fork();
	if (child == 0) {
		for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
			close(stream);
		}
		OpenStandardStreams();
		const bool is_beside = open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600) > STDERR_FILENO;
		_exit(is_beside && write(STDOUT_FILENO, "x", 1) == 1 ? 0 : 1);
	}
	int status = -1;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(status, 0);
}

} // namespace
} // namespace tarn
