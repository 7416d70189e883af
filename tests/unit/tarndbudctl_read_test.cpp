#include "dataupdate/file_lock.h"
#include "dataupdate/paths.h"
#include "host/library/failure.h"
#include "host/library/process.h"
#include "private_root.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace tarn::ctl {
namespace {

using dataupdate::FileLock;
using test::ReadFile;
using test::WriteFile;
using testing::HasSubstr;

constexpr char kMark[] = "/var/lib/data_update/geo/replacing";
constexpr char kUsingLock[] = "/run/data_update/using_geo.lock";

class ReadCommandTest : public test::FixedPathsTest {
protected:
	void SetUp() override {
		test::FixedPathsTest::SetUp();
		if (IsSkipped()) {
			return;
		}
		WriteFile("/usr/share/data_update/databases.conf", R"({"geo":{},"zip":{}})");
		WriteFile(kUsingLock, "");
		doubles_.Install(4);
	}
	ExitCode Run(const std::string& script, const std::string& id = "geo") {
		return RunCommand({"sh", "-c", script, directory_.Path()}, id);
	}
	ExitCode RunCommand(const std::vector<std::string>& command, const std::string& id = "geo") {
		Options options;
		options.id = id;
		options.timeout_seconds = timeout_seconds_;
		options.even_unfinished = even_unfinished_;
		options.command = command;
		return kReadCommand.run(doubles_.services, options);
	}
	/** The code of a run that fails, with its sentence. */
	std::pair<ExitCode, std::string> Failure(const std::string& id = "geo") {
		try {
			return {Run(": > $0/ran", id), ""};
		} catch (const CommandError& error) {
			return {error.Code(), error.what()};
		}
	}
	/** What a run that was killed while it replaced files leaves. */
	static void LeaveUnfinished() {
		WriteFile("/var/lib/data_update/geo/version.json", "{}");
		WriteFile(kMark, "");
	}
	bool HasRun() const { return std::filesystem::exists(directory_ / "ran"); }

	test::TemporaryDirectory directory_;
	test::Doubles doubles_;
	unsigned long timeout_seconds_ = 0;
	bool even_unfinished_ = false;
};

TEST_F(ReadCommandTest, EndsAsTheCommandEnds) {
	EXPECT_EQ(RunCommand({"true"}), 0);
	EXPECT_EQ(Run("exit 75"), 75);
	EXPECT_EQ(Run("kill -USR1 $$"), 128 + SIGUSR1);
}

TEST_F(ReadCommandTest, TellsAMissingCommandFromOneThatCannotBeExecuted) {
	EXPECT_EQ(RunCommand({"no-such-program-anywhere"}), 127);
	EXPECT_EQ(RunCommand({"/"}), 126);
	EXPECT_EQ(doubles_.err.str(),
	    "tarndbudctl: no-such-program-anywhere cannot be executed: there is no such program.\n"
	    "tarndbudctl: / cannot be executed: it is no program that may be run here.\n");
}

TEST_F(ReadCommandTest, RunsTheCommandWithTheCallersMaskOfFileModes) {
	const mode_t before = umask(027);
	SetOwnUmask();
	EXPECT_EQ(Run("umask > $0/umask"), 0);
	EXPECT_EQ(umask(before), 022U);
	EXPECT_EQ(ReadFile(directory_ / "umask"), "0027\n");
}

TEST_F(ReadCommandTest, HoldsTheLockWhileTheCommandRuns) {
	EXPECT_EQ(Run("flock --exclusive --nonblock /run/data_update/using_geo.lock true"), 1);
	EXPECT_EQ(Run("flock --shared --nonblock /run/data_update/using_geo.lock true"), 0);
	const FileLock free(kUsingLock, 0);
}

TEST_F(ReadCommandTest, LeavesNoDescriptorInTheCommand) {
	EXPECT_EQ(Run("ls -l /proc/self/fd > $0/descriptors"), 0);
	EXPECT_THAT(ReadFile(directory_ / "descriptors"), testing::Not(HasSubstr("using_geo")));
}

TEST_F(ReadCommandTest, DoesNotRunTheCommandWhileTheDatabaseIsReplaced) {
	const FileLock replacing(kUsingLock, 0);
	EXPECT_EQ(Failure().first, kLocked);
	EXPECT_FALSE(HasRun());
}

TEST_F(ReadCommandTest, MakesTheLockFileThatARestartTookAway) {
	std::filesystem::remove(kUsingLock);
	EXPECT_EQ(Run("exit 5"), 5);
	EXPECT_TRUE(std::filesystem::exists(kUsingLock));
}

TEST_F(ReadCommandTest, HasNothingToLockBeforeTheFirstInstallation) {
	std::filesystem::remove(kUsingLock);
	doubles_.Install(-1);
	EXPECT_EQ(Failure().first, kLocked);
	EXPECT_THAT(Failure().second, HasSubstr("Nothing is installed of geo"));
	EXPECT_FALSE(HasRun());
	EXPECT_FALSE(std::filesystem::exists(kUsingLock));
}

TEST_F(ReadCommandTest, DoesNotReadAMixtureThatAKilledRunLeft) {
	LeaveUnfinished();
	timeout_seconds_ = 600; // No update runs that could be waited for.
	EXPECT_EQ(Failure().first, kLocked);
	EXPECT_THAT(Failure().second, HasSubstr("The last replacement of the files of geo was not finished"));
	EXPECT_FALSE(HasRun());
	const FileLock free(kUsingLock, 0);
}

TEST_F(ReadCommandTest, DoesNotReadWhatAKilledFirstInstallationLeft) {
	WriteFile(kMark, "");
	EXPECT_EQ(Failure().first, kLocked);
}

TEST_F(ReadCommandTest, ReadsAMixtureWhenToldSo) {
	LeaveUnfinished();
	even_unfinished_ = true;
	EXPECT_EQ(Run("flock --exclusive --nonblock /run/data_update/using_geo.lock true"), 1);
}

TEST_F(ReadCommandTest, WaitsForAnUpdateToRecordWhatItReplaced) {
	LeaveUnfinished();
	timeout_seconds_ = 600;
	ON_CALL(*doubles_.checker, IsAnyUpdating).WillByDefault([] {
		std::filesystem::remove(kMark);
		return true;
	});
	EXPECT_EQ(Run("exit 5"), 5);
}

TEST_F(ReadCommandTest, DoesNotWaitForAnUpdateForLongerThanItMay) {
	LeaveUnfinished();
	timeout_seconds_ = 1;
	ON_CALL(*doubles_.checker, IsAnyUpdating).WillByDefault(testing::Return(true));
	EXPECT_EQ(Failure().first, kLocked);
	EXPECT_FALSE(HasRun());
}

TEST_F(ReadCommandTest, GivesLockFilesTheirModeBeforeItAsksForAnUpdate) {
	LeaveUnfinished();
	timeout_seconds_ = 600;
	std::filesystem::perms found = {};
	ON_CALL(*doubles_.checker, IsAnyUpdating).WillByDefault([&] {
		found = std::filesystem::status(dataupdate::kUpdateAnyLock).permissions();
		return false;
	});
	EXPECT_EQ(Failure().first, kLocked);
	EXPECT_EQ(found, std::filesystem::perms(0600));
	EXPECT_TRUE(std::filesystem::exists(dataupdate::UpdateLockPath("geo")));
}

TEST_F(ReadCommandTest, LooksForTheMarkUnderTheLock) {
	ON_CALL(*doubles_.info, GetDatabaseStatus).WillByDefault([](const std::string&) {
		LeaveUnfinished(); // Between the lock's two looks for its file.
		dataupdate::DatabaseStatus status;
		status.data_version = 4;
		return status;
	});
	std::filesystem::remove(kUsingLock);
	EXPECT_EQ(Failure().first, kLocked);
	EXPECT_FALSE(HasRun());
}

TEST_F(ReadCommandTest, RefusesADatabaseThatIsNotConfigured) {
	EXPECT_THROW(Run("exit 0", "nope"), dataupdate::UpdateError);
}

} // namespace
} // namespace tarn::ctl
