#include "private_root.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <dataupdate/file_lock.h>
#include <dataupdate/paths.h>
#include <tarndbudctl/failure.h>

#include <gtest/gtest.h>

#include <sys/mount.h>

#include <filesystem>
#include <sstream>
#include <string>

namespace tarn::ctl {
namespace {

using test::ReadFile;
using test::WriteFile;
using testing::HasSubstr;

constexpr char kFile[] = "/@database/autoupdate/geo/file";
constexpr char kMark[] = "/var/lib/data_update/geo/replacing";

/** The real library over two directories that are listed as volumes. */
class VolumeCommandTest : public test::FixedPathsTest {
protected:
	void SetUp() override {
		test::FixedPathsTest::SetUp();
		if (IsSkipped()) {
			return;
		}
		WriteFile("/usr/share/data_update/databases.conf", R"({"geo":{"install_dest":"%VOLUME%"}})");
		for (const std::string& volume : {first_, second_}) {
			std::filesystem::create_directories(volume);
		}
		ListVolumes({first_, second_});
		UseVolume("");
	}
	void ListVolumes(const std::vector<std::string>& volumes) {
		std::string lines = "pattern /nothing*\n";
		for (const std::string& volume : volumes) {
			lines += "directory " + volume + "\n";
		}
		WriteFile("/usr/tarn/etc/volumes.conf", lines);
	}
	void UseVolume(const std::string& volume) {
		WriteFile("/usr/share/data_update/data_update.conf", R"({"config":{"cur_volume":")" + volume + R"("}})");
	}
	std::string Run(ExitCode (*command)(const Services&, const Options&), const std::string& path) {
		out_.str("");
		options_.path = path;
		EXPECT_EQ(command(services_, options_), kDone);
		return out_.str();
	}
	/** A database of one file, recorded by its absolute path. */
	void Install(const std::string& volume) {
		UseVolume(volume);
		WriteFile(volume + kFile, "content");
		dataupdate::DatabaseStatus status;
		status.data_version = 3;
		status.file_statuses = dataupdate::CalculateStatus({volume + kFile}, "/");
		services_.info->SetDatabaseStatus("geo", status);
	}
	std::vector<std::string> RecordedFiles() const {
		std::vector<std::string> names;
		for (const auto& [name, status] : services_.info->GetDatabaseStatus("geo").file_statuses) {
			names.push_back(name);
		}
		return names;
	}
	std::string Volume() const { return services_.config->GetCurVolume(); }

	test::TemporaryDirectory directory_;
	const std::string first_ = directory_ / "volume1";
	const std::string second_ = directory_ / "volume2";
	Options options_;
	std::ostringstream out_;
	std::ostringstream err_;
	Terminal terminal_{out_, err_, false};
	Services services_ = MakeServices(terminal_);
};

TEST_F(VolumeCommandTest, AdoptsAMountedVolumeWhenNoneIsInUse) {
	EXPECT_EQ(Run(RunVolumeMounted, second_ + "/"), "The databases are on " + second_ + " from now on.\n");
	EXPECT_EQ(Volume(), second_);
	EXPECT_EQ(Run(RunVolumeMounted, first_), "The databases stay on " + second_ + ".\n");
	EXPECT_EQ(Volume(), second_);
}

TEST_F(VolumeCommandTest, RefusesWhatIsNoVolume) {
	options_.path = "/nowhere";
	EXPECT_THROW(RunVolumeMounted(services_, options_), CommandError);
	EXPECT_EQ(Volume(), "");
}

TEST_F(VolumeCommandTest, DoesNotAdoptAnUnsuitableVolume) {
	WriteFile("/usr/share/data_update/databases.conf",
	    R"({"geo":{"min_rsv_space_inbytes":4294967295}, "zip":{"min_rsv_space_inbytes":4294967295}})");
	WriteFile("/usr/tarn/etc/volumes.conf", "directory " + first_ + "\nexclude " + first_ + "\n");
	EXPECT_THAT(Run(RunVolumeMounted, first_), HasSubstr(first_ + " is not suitable"));
	EXPECT_EQ(Volume(), "");
}

TEST_F(VolumeCommandTest, MovesTheDatabasesAway) {
	UseVolume(first_);
	WriteFile(first_ + "/@database/autoupdate/geo/file", "content");
	options_.json = true;
	const std::string answer = Run(RunVolumeUnmounting, first_ + "/");
	EXPECT_THAT(answer, HasSubstr("\"result\" : \"moved\""));
	EXPECT_THAT(answer, HasSubstr("\"volume\" : \"" + second_ + "\""));
	EXPECT_EQ(Volume(), second_);
	EXPECT_EQ(ReadFile(second_ + "/@database/autoupdate/geo/file"), "content");
	EXPECT_FALSE(std::filesystem::exists(first_ + "/@database/autoupdate"));
}

TEST_F(VolumeCommandTest, LetsTheRecordsFollowTheFiles) {
	UseVolume(first_);
	WriteFile(first_ + "/@database/autoupdate/geo/file", "content");
	dataupdate::DatabaseStatus status;
	status.data_version = 3;
	status.file_statuses[first_ + "/@database/autoupdate/geo/file"] = dataupdate::FileStatus("a");
	status.file_statuses["relative"] = dataupdate::FileStatus("b");
	status.file_statuses["/elsewhere"] = dataupdate::FileStatus("c");
	services_.info->SetDatabaseStatus("geo", status);
	Run(RunVolumeUnmounting, first_);
	const std::map<std::string, dataupdate::FileStatus> expected = {
	    {second_ + "/@database/autoupdate/geo/file", dataupdate::FileStatus("a")},
	    {"relative", dataupdate::FileStatus("b")}, {"/elsewhere", dataupdate::FileStatus("c")}};
	EXPECT_EQ(services_.info->GetDatabaseStatus("geo").file_statuses, expected);
	EXPECT_EQ(services_.info->GetDatabaseStatus("geo").data_version, 3);
}

TEST_F(VolumeCommandTest, KeepsTheMarkOfAnUnfinishedReplacementThroughAMove) {
	Install(first_);
	WriteFile(kMark, "");
	Run(RunVolumeUnmounting, first_);
	EXPECT_TRUE(std::filesystem::exists(kMark));
	EXPECT_EQ(RecordedFiles(), std::vector<std::string>{second_ + kFile});
}

TEST_F(VolumeCommandTest, LeavesNoMarkBehindAMove) {
	Install(first_);
	Run(RunVolumeUnmounting, first_);
	EXPECT_FALSE(std::filesystem::exists(kMark));
}

TEST_F(VolumeCommandTest, LeavesNoMarkWhenNothingWasMoved) {
	Install(first_);
	WriteFile(second_ + "/@database/autoupdate/in the way", "");
	options_.path = first_;
	EXPECT_THROW(RunVolumeUnmounting(services_, options_), CommandError);
	EXPECT_FALSE(std::filesystem::exists(kMark));
	EXPECT_TRUE(std::filesystem::exists(second_ + "/@database/autoupdate/in the way"));
	EXPECT_EQ(RecordedFiles(), std::vector<std::string>{first_ + kFile});
}

TEST_F(VolumeCommandTest, MovesNothingThatItCannotMark) {
	Install(first_);
	const char* records = "/var/lib/data_update/geo";
	if (mount(records, records, nullptr, MS_BIND, nullptr) != 0 ||
	    mount(nullptr, records, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
		GTEST_SKIP() << "nothing can be mounted here";
	}
	options_.path = first_;
	EXPECT_THROW(RunVolumeUnmounting(services_, options_), CommandError);
	EXPECT_EQ(umount(records), 0);
	EXPECT_EQ(ReadFile(first_ + kFile), "content");
	EXPECT_FALSE(std::filesystem::exists(second_ + kFile));
}

TEST_F(VolumeCommandTest, GivesUpAVolumeThatVanished) {
	UseVolume(directory_ / "gone");
	EXPECT_THAT(Run(RunVolumeUnmounting, directory_ / "gone"), HasSubstr("is not available and was given up"));
	EXPECT_EQ(Volume(), "");
}

TEST_F(VolumeCommandTest, MarksWhatAnAdoptedVolumeLacks) {
	Install(first_);
	UseVolume("");
	ListVolumes({second_});
	EXPECT_THAT(Run(RunVolumeMounted, second_), HasSubstr("to be installed anew by the next update: geo\n"));
	EXPECT_TRUE(std::filesystem::exists(kMark));
	EXPECT_EQ(RecordedFiles(), std::vector<std::string>{second_ + kFile});
}

TEST_F(VolumeCommandTest, MarksWhatIsOtherwiseThanRecordedOnAnAdoptedVolume) {
	Install(first_);
	WriteFile(first_ + kFile, "cut off");
	UseVolume("");
	options_.json = true;
	EXPECT_EQ(RunInit(services_, options_), kDone);
	EXPECT_EQ(out_.str(), "{\n\t\"incomplete\" : \n\t[\n\t\t\"geo\"\n\t],\n\t\"volume\" : \"" + first_ + "\"\n}\n");
	EXPECT_TRUE(std::filesystem::exists(kMark));
}

TEST_F(VolumeCommandTest, MarksNothingThatIsWholeOnAnAdoptedVolume) {
	Install(first_);
	WriteFile("/usr/share/data_update/databases.conf",
	    R"({"geo":{"install_dest":"%VOLUME%"}, "root":{"install_dest":"%ROOTFS%"}, "bad":{}})");
	for (const char* elsewhere : {"root", "bad"}) {
		services_.info->SetDatabaseStatus(elsewhere, services_.info->GetDatabaseStatus("geo"));
	}
	UseVolume("");
	EXPECT_EQ(Run(RunVolumeMounted, first_), "The databases are on " + first_ + " from now on.\n");
	EXPECT_FALSE(std::filesystem::exists(kMark));
}

TEST_F(VolumeCommandTest, MarksAForcedVersionThatAnAdoptedVolumeLacks) {
	Install(first_);
	dataupdate::DatabaseStatus forced;
	forced.data_version = 3;
	services_.info->SetDatabaseStatus("geo", forced);
	UseVolume("");
	EXPECT_THAT(Run(RunVolumeMounted, second_), HasSubstr("geo"));
	EXPECT_TRUE(std::filesystem::exists(kMark));
}

TEST_F(VolumeCommandTest, GivesUpTheVolumeWhenThereIsNoOther) {
	UseVolume(first_);
	ListVolumes({first_});
	WriteFile(first_ + "/@database/autoupdate/geo/file", "content");
	EXPECT_THAT(Run(RunVolumeUnmounting, first_), HasSubstr("The databases stay on " + first_));
	EXPECT_EQ(Volume(), "");
	EXPECT_EQ(ReadFile(first_ + "/@database/autoupdate/geo/file"), "content");
}

TEST_F(VolumeCommandTest, IgnoresTheEndOfAnotherVolume) {
	UseVolume(first_);
	EXPECT_EQ(Run(RunVolumeUnmounting, second_), "The databases are not on " + second_ + ".\n");
	EXPECT_EQ(Volume(), first_);
}

TEST_F(VolumeCommandTest, FailsWhenTheDatabasesCannotBeMoved) {
	UseVolume(first_);
	WriteFile(first_ + "/@database/autoupdate/geo/file", "content");
	WriteFile(second_ + "/@database/autoupdate/in the way", "");
	options_.path = first_;
	EXPECT_THROW(RunVolumeUnmounting(services_, options_), CommandError);
	EXPECT_EQ(Volume(), "");
	EXPECT_EQ(ReadFile(first_ + "/@database/autoupdate/geo/file"), "content");
}

TEST_F(VolumeCommandTest, TouchesNothingBelowAnUpdateOrAReader) {
	UseVolume(first_);
	options_.path = first_;
	options_.timeout_seconds = 0;
	for (const char* lock : {dataupdate::kUpdateAnyLock, "/run/data_update/using_geo.lock"}) {
		const dataupdate::FileLock busy(lock, 0);
		EXPECT_THROW(RunVolumeUnmounting(services_, options_), dataupdate::UpdateError) << lock;
		EXPECT_EQ(Volume(), first_) << lock;
	}
}

TEST_F(VolumeCommandTest, InitMakesTheLocksOfWhatIsInstalled) {
	WriteFile("/usr/share/data_update/databases.conf", R"({"geo":{},"zip":{}})");
	dataupdate::DatabaseStatus status;
	status.data_version = 3;
	services_.info->SetDatabaseStatus("geo", status);
	EXPECT_EQ(RunInit(services_, options_), kDone);
	EXPECT_TRUE(std::filesystem::exists("/run/data_update/using_geo.lock"));
	EXPECT_FALSE(std::filesystem::exists("/run/data_update/using_zip.lock"));
	EXPECT_EQ(out_.str(), "The databases are on " + first_ + ".\n");
}

TEST_F(VolumeCommandTest, RefreshDropsTheDocumentThatNobodyIsFetching) {
	WriteFile(dataupdate::kCachedInfo, "<html>");
	{
		const dataupdate::FileLock fetching(dataupdate::kFreshInfoLock, 0);
		EXPECT_TRUE(std::filesystem::exists(dataupdate::kCachedInfo));
	}
	EXPECT_THAT(Run(RunRefresh, ""), HasSubstr("was dropped"));
	EXPECT_FALSE(std::filesystem::exists(dataupdate::kCachedInfo));
	EXPECT_THAT(Run(RunRefresh, ""), HasSubstr("no document to drop"));
}

} // namespace
} // namespace tarn::ctl
