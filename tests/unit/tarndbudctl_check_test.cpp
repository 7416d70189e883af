#include "dataupdate/file_lock.h"
#include "host/library/failure.h"
#include "host/library/file_changes.h"
#include "host/library/inspection.h"
#include "private_root.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <future>
#include <memory>
#include <set>
#include <sstream>
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
		std::filesystem::create_directories("/var/lib/data_update/geo");
		WriteFile(directory_ / "file", "content");
		ON_CALL(*doubles_.database, GetInstallPrefix).WillByDefault(Return(directory_.Path().string()));
		RecordAll({"file"});
		ON_CALL(*doubles_.info, GetDatabaseStatus).WillByDefault([this](const std::string&) { return record_; });
	}
	/** What a full package leaves: a record that lists all files, by absolute names. */
	void RecordAll(const std::set<std::string>& names) { record_ = Whole(names); }
	DatabaseStatus Whole(const std::set<std::string>& names) const {
		std::set<std::string> paths;
		for (const std::string& name : names) {
			paths.insert(directory_ / name);
		}
		return Record(directory_.Path(), paths);
	}
	/** What a diff package leaves: a record of what it changed, and the host's one of all. */
	void RecordDiff(const std::set<std::string>& changed, const std::set<std::string>& all) {
		WriteInstalledFiles("geo", WholeRecord(Whole(all), directory_.Path(), true));
		record_ = Record(directory_.Path(), changed);
	}
	Json::Value Answer() {
		Options options;
		options.ids = {"geo"};
		options.json = true;
		doubles_.out.str("");
		kCheckCommand.run(doubles_.services, options);
		Json::Value array;
		std::istringstream(doubles_.out.str()) >> array;
		return array[0];
	}
	ExitCode Run(std::vector<std::string> ids, unsigned long timeout_seconds = 0) {
		Options options;
		options.ids = std::move(ids);
		options.timeout_seconds = timeout_seconds;
		return kCheckCommand.run(doubles_.services, options);
	}
	void Damage() { WriteFile(directory_ / "file", "CONTENT"); }
	/** The second look, which keeps updates away, finds another file bad if it looks at it. */
	void DamageTheSoundFileBeforeTheSecondLook() {
		WriteFile(directory_ / "sound", "content");
		RecordAll({"file", "sound"});
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

TEST_F(CheckCommandTest, SaysThatThereIsNoVolumeInsteadOfMissingEveryFile) {
	ON_CALL(*doubles_.config, GetCurVolume).WillByDefault(Return(""));
	ON_CALL(*doubles_.database, GetRootDirectory).WillByDefault(Return("/"));
	EXPECT_EQ(Run({"geo"}), kDone) << "it lives on the root file system";
	ON_CALL(*doubles_.database, GetRootDirectory).WillByDefault(Return(""));
	doubles_.out.str("");
	EXPECT_EQ(Run({"geo"}), kFailed);
	EXPECT_EQ(doubles_.out.str(), "");
	EXPECT_THAT(doubles_.err.str(), testing::HasSubstr("There is no storage volume"));
	record_ = DatabaseStatus();
	EXPECT_EQ(Run({"geo"}), kFixNeeded) << "nothing is installed, wherever it would be";
}

TEST_F(CheckCommandTest, ShowsAFewOfManyBadFiles) {
	for (int number = 0; number < 30; ++number) {
		record_.file_statuses[directory_ / ("gone" + std::to_string(number))] = {};
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
		RecordAll({"file"});
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
		return std::exchange(record_, Whole({"file"}));
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

TEST_F(CheckCommandTest, FindsDamageToAFileThatTheLastUpdateLeftAlone) {
	for (const char* name : {"damaged", "missing", "shortened"}) {
		WriteFile(directory_ / name, "content");
	}
	RecordDiff({"file"}, {"damaged", "file", "missing", "shortened"});
	EXPECT_EQ(Run({"geo"}), kDone);
	WriteFile(directory_ / "damaged", "CONTENT");
	std::filesystem::remove(directory_ / "missing");
	WriteFile(directory_ / "shortened", "conten");
	EXPECT_EQ(Run({"geo"}), kFixNeeded);
	EXPECT_EQ(doubles_.out.str(), "geo: ok\ngeo: needs a fix\n\t" + directory_ / "damaged" + " has changed\n\t" +
	                                  directory_ / "missing" + " is missing\n\t" + directory_ / "shortened" +
	                                  " has changed\n");
	EXPECT_EQ(Answer()["record_of_all_files"], "complete");
}

TEST_F(CheckCommandTest, TellsWhatLiesThereWithoutBeingRecorded) {
	for (const bool is_diff : {false, true}) {
		WriteFile(directory_ / "sub/unknown", "");
		if (is_diff) {
			RecordDiff({}, {"file"});
		}
		doubles_.out.str("");
		EXPECT_EQ(Run({"geo"}), kFixNeeded);
		EXPECT_EQ(doubles_.out.str(), "geo: needs a fix\n\t" + directory_ / "sub/unknown" + " is unknown\n");
		const Json::Value answer = Answer();
		EXPECT_EQ(answer["result"], "needs a fix");
		EXPECT_EQ(answer["bad_files"].size(), 0U);
		EXPECT_EQ(answer["unknown_files"][0]["path"], directory_ / "sub/unknown");
	}
}

TEST_F(CheckCommandTest, BlamesNoUnknownFileThatWasRecordedMeanwhile) {
	RecordDiff({}, {"file"});
	WriteFile(directory_ / "new", "");
	ON_CALL(*doubles_.info, GetDatabaseStatus).WillByDefault([this, seen = 0](const std::string&) mutable {
		if (++seen == 2) {
			RecordDiff({"new"}, {"file", "new"});
		}
		return record_;
	});
	EXPECT_EQ(Run({"geo"}), kDone);
}

TEST_F(CheckCommandTest, SaysWhenOnlyTheLastUpdateCanBeCompared) {
	record_ = Record(directory_.Path(), {"file"});
	WriteFile(directory_ / "unknown", "");
	EXPECT_EQ(Run({"geo"}), kDone);
	EXPECT_THAT(doubles_.out.str(), testing::HasSubstr("geo: ok\n\tonly what the last update changed was compared"));
	EXPECT_EQ(Answer()["record_of_all_files"], "missing");
	WriteInstalledFiles("geo", RebuiltRecord(record_, directory_.Path()));
	EXPECT_EQ(Answer()["record_of_all_files"], "rebuilt");
}

TEST_F(CheckCommandTest, DoesNotTakeAnUnfinishedReplacementForSound) {
	WriteFile("/var/lib/data_update/geo/version.json", "{}");
	WriteFile("/var/lib/data_update/geo/replacing", "");
	EXPECT_EQ(Run({"geo"}), kFixNeeded);
	EXPECT_EQ(doubles_.out.str(), "geo: needs a fix\n\tthe last replacement of its files was not finished\n");
	EXPECT_EQ(Answer()["unfinished"], true);
	for (const char* busy : {kUpdateLock, "/run/data_update/update_any.lock"}) {
		const FileLock updating(busy, 0);
		EXPECT_EQ(Run({"geo"}), kLocked) << "the update may be about to record it, or an adopted volume be compared";
	}
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
