#include "private_root.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <dataupdate/file_lock.h>
#include <tarndbudctl/failure.h>
#include <tarndbudctl/file_check.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tarn::ctl {
namespace {

using dataupdate::DatabaseStatus;
using dataupdate::FileLock;
using test::WriteFile;
using testing::Return;

constexpr char kUsingLock[] = "/run/data_update/using_geo.lock";
constexpr char kUpdateLock[] = "/run/data_update/update_geo.lock";

DatabaseStatus Record(const std::string& directory, const std::set<std::string>& files) {
	DatabaseStatus status;
	status.data_version = 4;
	status.file_statuses = dataupdate::CalculateStatus(files, directory);
	return status;
}

TEST(FindBadFilesTest, NamesEveryBadFileAndInWhatItIsBad) {
	const test::TemporaryDirectory directory;
	const std::string root = directory.Path();
	for (const char* name : {"changed", "good", "missing", "replaced"}) {
		WriteFile(directory / name, name);
	}
	const DatabaseStatus status = Record(root, {"changed", "good", directory / "missing", "replaced"});
	WriteFile(directory / "changed", "CHANGED");
	std::filesystem::remove(directory / "missing");
	std::filesystem::remove(directory / "replaced");
	std::filesystem::create_directory(directory / "replaced");
	std::vector<std::string> found;
	for (const BadFile& file : FindBadFiles(status, root)) {
		found.push_back(file.path + " " + file.reason);
	}
	EXPECT_THAT(found, testing::UnorderedElementsAre(directory / "changed" + std::string(" has changed"),
	                       directory / "missing" + std::string(" is missing"),
	                       directory / "replaced" + std::string(" is no regular file")));
}

class CheckCommandTest : public test::FixedPathsTest {
protected:
	void SetUp() override {
		test::FixedPathsTest::SetUp();
		if (IsSkipped()) {
			return;
		}
		WriteFile("/usr/share/data_update/databases.conf", R"({"geo":{},"zip":{}})");
		WriteFile(kUsingLock, "");
		WriteFile(directory_ / "file", "content");
		ON_CALL(*doubles_.database, GetInstallPrefix).WillByDefault(Return(directory_.Path().string()));
		record_ = Record(directory_.Path(), {"file"});
		ON_CALL(*doubles_.info, GetDatabaseStatus).WillByDefault([this](const std::string&) { return record_; });
	}
	ExitCode Run(std::vector<std::string> ids, unsigned long timeout_seconds = 0) {
		Options options;
		options.ids = std::move(ids);
		options.timeout_seconds = timeout_seconds;
		return RunCheck(doubles_.services, options);
	}
	void Damage() { WriteFile(directory_ / "file", "CONTENT"); }
	/** The second look, which keeps updates away, finds another file bad if it looks at it. */
	void DamageTheSoundFileBeforeTheSecondLook() {
		WriteFile(directory_ / "sound", "content");
		record_ = Record(directory_.Path(), {"file", "sound"});
		Damage();
		ON_CALL(*doubles_.info, GetDatabaseStatus).WillByDefault([this, seen = 0](const std::string&) mutable {
			if (++seen == 2) {
				WriteFile(directory_ / "sound", "CONTENT");
			}
			return record_;
		});
	}

	test::TemporaryDirectory directory_;
	DatabaseStatus record_;
	std::promise<void> looked_;
	test::Doubles doubles_;
};

TEST_F(CheckCommandTest, FindsAllDatabasesSoundWithoutTheServer) {
	EXPECT_CALL(*doubles_.info, GetRemoteInfo).Times(0);
	EXPECT_CALL(*doubles_.info, GetDatabaseInfo).Times(0);
	EXPECT_EQ(Run({}), kDone);
	EXPECT_EQ(doubles_.out.str(), "geo: ok\nzip: ok\n");
}

TEST_F(CheckCommandTest, NamesTheFileThatNeedsAFix) {
	Damage();
	EXPECT_EQ(Run({"geo"}), kFixNeeded);
	EXPECT_EQ(doubles_.out.str(), "geo: needs a fix\n\t" + directory_ / "file" + " has changed\n");
}

TEST_F(CheckCommandTest, TakesWhatIsNotInstalledForInNeedOfAFix) {
	record_ = DatabaseStatus();
	EXPECT_EQ(Run({"geo"}), kFixNeeded);
	EXPECT_EQ(doubles_.out.str(), "geo: not installed\n");
}

TEST_F(CheckCommandTest, ShowsAFewOfManyBadFiles) {
	for (int number = 0; number < 30; ++number) {
		record_.file_statuses["gone" + std::to_string(number)] = {};
	}
	EXPECT_EQ(Run({"geo"}), kFixNeeded);
	EXPECT_THAT(doubles_.out.str(), testing::EndsWith("\tand 10 more\n"));
}

TEST_F(CheckCommandTest, DoesNotLookAtFilesThatAreBeingReplaced) {
	const FileLock replacing(kUsingLock, 0);
	EXPECT_EQ(Run({"geo"}), kLocked);
	EXPECT_EQ(doubles_.out.str(), "");
	EXPECT_THAT(doubles_.err.str(), testing::HasSubstr("geo: The database is being replaced"));
}

TEST_F(CheckCommandTest, HoldsOffAReplacementWhileItLooks) {
	ON_CALL(*doubles_.info, GetDatabaseStatus).WillByDefault([this](const std::string&) {
		EXPECT_THROW(FileLock(kUsingLock, 0), dataupdate::UpdateError);
		return record_;
	});
	EXPECT_EQ(Run({"geo"}), kDone);
	const FileLock free(kUsingLock, 0);
}

TEST_F(CheckCommandTest, DoesNotBlameAnUpdateThatHasNotRecordedItsFilesYet) {
	Damage();
	const FileLock updating(kUpdateLock, 0);
	EXPECT_EQ(Run({"geo"}), kLocked);
	EXPECT_EQ(doubles_.out.str(), "");
	EXPECT_THAT(doubles_.err.str(), testing::HasSubstr("geo: The database is being updated"));
}

TEST_F(CheckCommandTest, WaitsForAnUpdateToRecordItsFiles) {
	Damage();
	auto updating = std::make_unique<FileLock>(kUpdateLock, 0);
	std::thread update([&] {
		// The files were seen, and are not locked any more.
		looked_.get_future().wait();
		std::make_unique<FileLock>(kUsingLock, 60);
		record_ = Record(directory_.Path(), {"file"});
		updating.reset();
	});
	ON_CALL(*doubles_.info, GetDatabaseStatus)
	    .WillByDefault(testing::Invoke([this, seen = 0](const std::string&) mutable {
		    if (++seen == 1) {
			    looked_.set_value();
		    }
		    return record_;
	    }));
	EXPECT_EQ(Run({"geo"}, 60), kDone);
	update.join();
	EXPECT_EQ(doubles_.out.str(), "geo: ok\n");
}

TEST_F(CheckCommandTest, BlamesNothingThatAnUpdateRecordedMeanwhile) {
	Damage();
	ON_CALL(*doubles_.info, GetDatabaseStatus).WillByDefault([this](const std::string&) {
		return std::exchange(record_, Record(directory_.Path(), {"file"}));
	});
	EXPECT_EQ(Run({"geo"}), kDone);
	EXPECT_EQ(doubles_.out.str(), "geo: ok\n");
}

TEST_F(CheckCommandTest, KeepsUpdatesAwayForTheBadFilesOnly) {
	DamageTheSoundFileBeforeTheSecondLook();
	EXPECT_EQ(Run({"geo"}), kFixNeeded);
	EXPECT_EQ(doubles_.out.str(), "geo: needs a fix\n\t" + directory_ / "file" + " has changed\n");
}

TEST_F(CheckCommandTest, LooksAtAllFilesAgainWhenSomethingWasReplacedMeanwhile) {
	DamageTheSoundFileBeforeTheSecondLook();
	WriteFile("/var/lib/data_update/geo/version.json", "{}");
	WriteFile("/var/lib/data_update/geo/replacing", "");
	EXPECT_EQ(Run({"geo"}), kFixNeeded);
	EXPECT_THAT(doubles_.out.str(), testing::HasSubstr(directory_ / "sound" + " has changed\n"));
	ON_CALL(*doubles_.info, GetDatabaseStatus).WillByDefault([this](const std::string&) {
		record_.data_version++;
		return record_;
	});
	std::filesystem::remove("/var/lib/data_update/geo/replacing");
	EXPECT_EQ(Run({"geo"}), kFixNeeded);
	EXPECT_THAT(doubles_.out.str(), testing::EndsWith(directory_ / "sound" + " has changed\n"));
}

TEST_F(CheckCommandTest, KeepsNoUpdateAwayFromWhatIsSound) {
	const FileLock updating(kUpdateLock, 0);
	EXPECT_EQ(Run({"geo"}), kDone);
}

TEST_F(CheckCommandTest, ChecksTheOthersAfterAFailure) {
	EXPECT_EQ(Run({"nope", "geo"}), kUnsupported);
	EXPECT_EQ(doubles_.out.str(), "geo: ok\n");
	std::filesystem::remove(directory_ / "file");
	doubles_.out.str("");
	EXPECT_EQ(Run({"geo", "nope"}), kFixNeeded);
}

} // namespace
} // namespace tarn::ctl
