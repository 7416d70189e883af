#include "dataupdate/file_lock.h"
#include "dataupdate/paths.h"
#include "host/library/failure.h"
#include "two_volumes.h"

#include <tarncore/tarncore.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

namespace tarn::ctl {
namespace {

using test::ReadFile;
using test::WriteFile;
using testing::HasSubstr;
using testing::Return;

constexpr char kFile[] = "/@database/autoupdate/geo/file";
constexpr char kMark[] = "/var/lib/data_update/geo/replacing";
constexpr char kMalformed[] = R"({"data_version":"x","last_fetch_time":0,"file_statuses":{}})";
constexpr char kSecondMark[] = "/var/lib/data_update/zip/replacing";

class VolumeCommandTest : public TwoVolumesTest {
protected:
	VolumeCommandTest() : TwoVolumesTest(R"({"geo":{"install_dest":"%VOLUME%"}})") {}

	/** What a command that fails says. */
	std::string Refusal(ExitCode (*command)(const Services&, const Options&), const std::string& path) {
		options_.path = path;
		try {
			command(services_, options_);
		} catch (const CommandError& error) {
			return error.what();
		}
		ADD_FAILURE() << "it did not fail";
		return "";
	}
	/** Another database, whole on a volume. */
	void InstallSecond(const std::string& volume) {
		WriteFile("/usr/share/data_update/databases.conf",
		    R"({"geo":{"install_dest":"%VOLUME%"}, "zip":{"install_dest":"%VOLUME%"}})");
		InstallOneFile("zip", volume + "/@database/autoupdate/zip/file");
	}
	void Install(const std::string& volume) {
		UseVolume(volume);
		InstallOneFile("geo", volume + kFile);
	}
	/** A database of one file, recorded by its absolute path. */
	void InstallOneFile(const std::string& id, const std::string& file) {
		WriteFile(file, "content");
		dataupdate::DatabaseStatus status;
		status.data_version = 3;
		status.file_statuses = dataupdate::CalculateStatus({file}, "/");
		services_.info->SetDatabaseStatus(id, status);
	}
	std::vector<std::string> RecordedFiles() const {
		std::vector<std::string> names;
		for (const auto& [name, status] : services_.info->GetDatabaseStatus("geo").file_statuses) {
			names.push_back(name);
		}
		return names;
	}
};

TEST_F(VolumeCommandTest, AdoptsAMountedVolumeWhenNoneIsInUse) {
	EXPECT_EQ(Run(kVolumeMountedCommand.run, second_ + "/"), "The databases are on " + second_ + " from now on.\n");
	EXPECT_EQ(Volume(), second_);
	EXPECT_EQ(Run(kVolumeMountedCommand.run, first_), "The databases stay on " + second_ + ".\n");
	EXPECT_EQ(Volume(), second_);
}

TEST_F(VolumeCommandTest, RefusesWhatIsNoVolume) {
	options_.path = "/nowhere";
	EXPECT_THROW(kVolumeMountedCommand.run(services_, options_), CommandError);
	EXPECT_EQ(Volume(), "");
}

TEST_F(VolumeCommandTest, DoesNotAdoptAnUnsuitableVolume) {
	WriteFile("/usr/share/data_update/databases.conf",
	    R"({"geo":{"min_rsv_space_inbytes":4294967295}, "zip":{"min_rsv_space_inbytes":4294967295}})");
	WriteFile("/usr/tarn/etc/volumes.conf", "directory " + first_ + "\nexclude " + first_ + "\n");
	EXPECT_EQ(Run(kVolumeMountedCommand.run, first_),
	    first_ + " is not suitable: an \"exclude\" line of /usr/tarn/etc/volumes.conf names it.\n");
	EXPECT_EQ(Volume(), "");
}

TEST_F(VolumeCommandTest, SaysHowMuchRoomAVolumeLacks) {
	constexpr std::uintmax_t kReserve = 4'294'967'295;
	std::string databases;
	for (std::uintmax_t number = 0; number <= std::filesystem::space(first_).available / kReserve; ++number) {
		databases +=
		    (number == 0 ? "{\"" : ",\"") + std::to_string(number) + "\":{\"min_rsv_space_inbytes\":4294967295}";
	}
	WriteFile("/usr/share/data_update/databases.conf", databases + "}");
	EXPECT_THAT(Run(kVolumeMountedCommand.run, first_),
	    testing::MatchesRegex(".* is not suitable: .*B are free there, and the databases reserve [0-9.]+ [GTP]B[.]\n"));
	EXPECT_EQ(Volume(), "");
}

TEST_F(VolumeCommandTest, NamesEachVolumeThatDoesNotTakeTheDatabases) {
	UseVolume(first_);
	WriteFile(
	    "/usr/tarn/etc/volumes.conf", "directory " + first_ + "\ndirectory " + second_ + "\nexclude " + second_ + "\n");
	EXPECT_THAT(Run(kVolumeUnmountingCommand.run, first_),
	    HasSubstr("\n" + second_ + " is not suitable: an \"exclude\" line of /usr/tarn/etc/volumes.conf names it.\n"));
}

TEST_F(VolumeCommandTest, SaysWhatDoesNotCountWhereThereIsNoOtherVolume) {
	UseVolume(first_);
	WriteFile("/usr/tarn/etc/volumes.conf", "directory " + first_ + "\n");
	EXPECT_THAT(Run(kVolumeUnmountingCommand.run, first_), HasSubstr("There is no other volume; a tmpfs"));
}

TEST_F(VolumeCommandTest, TellsHowAFileSystemThatDoesNotCountIsTaken) {
	EXPECT_THAT(Refusal(kVolumeMountedCommand.run, "/proc"),
	    HasSubstr("the line \"directory /proc\" there takes it all the same"));
	EXPECT_THAT(Refusal(kVolumeMountedCommand.run, directory_ / "none"), HasSubstr("it is not mounted"));
}

TEST_F(VolumeCommandTest, MovesTheDatabasesAway) {
	UseVolume(first_);
	WriteFile(first_ + "/@database/autoupdate/geo/file", "content");
	options_.json = true;
	const std::string answer = Run(kVolumeUnmountingCommand.run, first_ + "/");
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
	Run(kVolumeUnmountingCommand.run, first_);
	const std::map<std::string, dataupdate::FileStatus> expected = {
	    {second_ + "/@database/autoupdate/geo/file", dataupdate::FileStatus("a")},
	    {"relative", dataupdate::FileStatus("b")}, {"/elsewhere", dataupdate::FileStatus("c")}};
	EXPECT_EQ(services_.info->GetDatabaseStatus("geo").file_statuses, expected);
	EXPECT_EQ(services_.info->GetDatabaseStatus("geo").data_version, 3);
}

TEST_F(VolumeCommandTest, KeepsTheMarkOfAnUnfinishedReplacementThroughAMove) {
	Install(first_);
	WriteFile(kMark, "");
	Run(kVolumeUnmountingCommand.run, first_);
	EXPECT_TRUE(std::filesystem::exists(kMark));
	EXPECT_EQ(RecordedFiles(), std::vector<std::string>{second_ + kFile});
}

TEST_F(VolumeCommandTest, LeavesNoMarkBehindAMove) {
	Install(first_);
	Run(kVolumeUnmountingCommand.run, first_);
	EXPECT_FALSE(std::filesystem::exists(kMark));
}

TEST_F(VolumeCommandTest, LeavesNoMarkWhenNothingWasMoved) {
	Install(first_);
	WriteFile(second_ + "/@database/autoupdate/in the way", "");
	options_.path = first_;
	EXPECT_THROW(kVolumeUnmountingCommand.run(services_, options_), CommandError);
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
	EXPECT_THAT(Refusal(kVolumeUnmountingCommand.run, first_), HasSubstr("Fail to mark replacement: "));
	EXPECT_EQ(umount(records), 0);
	EXPECT_EQ(ReadFile(first_ + kFile), "content");
	EXPECT_FALSE(std::filesystem::exists(second_ + kFile));
}

TEST_F(VolumeCommandTest, GivesUpAVolumeThatVanished) {
	UseVolume(directory_ / "gone");
	EXPECT_THAT(Run(kVolumeUnmountingCommand.run, directory_ / "gone"), HasSubstr("is not available and was given up"));
	EXPECT_EQ(Volume(), "");
}

TEST_F(VolumeCommandTest, MarksWhatAnAdoptedVolumeLacks) {
	Install(first_);
	UseVolume("");
	ListVolumes({second_});
	EXPECT_THAT(Run(kVolumeMountedCommand.run, second_), HasSubstr("to be installed again by the next update: geo\n"));
	EXPECT_TRUE(std::filesystem::exists(kMark));
	EXPECT_EQ(RecordedFiles(), std::vector<std::string>{second_ + kFile});
}

TEST_F(VolumeCommandTest, MarksWhatIsOtherwiseThanRecordedOnAnAdoptedVolume) {
	Install(first_);
	WriteFile(first_ + kFile, "cut off");
	UseVolume("");
	options_.json = true;
	EXPECT_EQ(kInitCommand.run(services_, options_), kDone);
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
	EXPECT_EQ(Run(kVolumeMountedCommand.run, first_), "The databases are on " + first_ + " from now on.\n");
	EXPECT_FALSE(std::filesystem::exists(kMark));
}

TEST_F(VolumeCommandTest, MarksAForcedVersionThatAnAdoptedVolumeLacks) {
	Install(first_);
	dataupdate::DatabaseStatus forced;
	forced.data_version = 3;
	services_.info->SetDatabaseStatus("geo", forced);
	UseVolume("");
	EXPECT_THAT(Run(kVolumeMountedCommand.run, second_), HasSubstr("geo"));
	EXPECT_TRUE(std::filesystem::exists(kMark));
}

/** Does something before a record is read, once a volume is in use. */
class FragileInfo : public dataupdate::InfoGetter {
public:
	FragileInfo(const Services& services, std::function<void(const std::string& id)> act)
	    : InfoGetter(services.io, services.config), config_(services.config), act_(std::move(act)) {}
	dataupdate::DatabaseStatus GetDatabaseStatus(const std::string& id) const override {
		if (!config_->GetCurVolume().empty()) {
			act_(id);
		}
		return InfoGetter::GetDatabaseStatus(id);
	}

private:
	std::shared_ptr<dataupdate::ServiceConfig> config_;
	std::function<void(const std::string&)> act_;
};

class FragileRecordTest : public VolumeCommandTest {
protected:
	void Break(const std::function<void(const std::string& id)>& act) {
		services_.info = std::make_shared<FragileInfo>(services_, act);
		services_.read_record = nullptr;
	}
};

TEST_F(FragileRecordTest, MarksBeforeAVolumeIsAdoptedAndIsKilled) {
	Install(first_);
	ListVolumes({second_});
	options_.path = second_;
	Break([](const std::string&) { raise(SIGKILL); });
	for (auto* command : {kInitCommand.run, kVolumeMountedCommand.run}) {
		UseVolume("");
		WriteFile("/usr/tarn/etc/data_update/data_update.conf", "{}");
		std::filesystem::remove(kMark);
		EXPECT_EXIT(command(services_, options_), testing::KilledBySignal(SIGKILL), "");
		EXPECT_EQ(Volume(), second_);
		EXPECT_TRUE(std::filesystem::exists(kMark));
	}
}

TEST_F(FragileRecordTest, AdoptsTheOthersWhenOneDatabaseFails) {
	Install(first_);
	InstallSecond(first_);
	UseVolume("");
	Break([](const std::string& id) {
		if (id == "geo") {
			throw std::runtime_error("broken");
		}
	});
	EXPECT_THAT(Run(kVolumeMountedCommand.run, first_), HasSubstr("installed again by the next update: geo\n"));
	EXPECT_THAT(err_.str(), HasSubstr("geo: broken."));
	EXPECT_TRUE(std::filesystem::exists(kMark));
	EXPECT_FALSE(std::filesystem::exists(kSecondMark));
}

TEST_F(VolumeCommandTest, NamesAMalformedRecordAndAdoptsTheOthers) {
	Install(first_);
	InstallSecond(first_);
	WriteFile("/var/lib/data_update/geo/version.json", kMalformed);
	UseVolume("");
	EXPECT_THAT(Run(kInitCommand.run, ""), HasSubstr("installed again by the next update: geo\n"));
	EXPECT_THAT(err_.str(), HasSubstr("geo: The record of what is installed"));
	EXPECT_TRUE(std::filesystem::exists(kMark));
	EXPECT_FALSE(std::filesystem::exists(kSecondMark));
	EXPECT_TRUE(std::filesystem::exists("/run/data_update/using_geo.lock"));
}

TEST_F(VolumeCommandTest, MovesAMalformedRecordsDatabaseMarked) {
	Install(first_);
	InstallSecond(first_);
	WriteFile("/var/lib/data_update/geo/version.json", kMalformed);
	EXPECT_THAT(Run(kVolumeUnmountingCommand.run, first_), HasSubstr("were moved"));
	EXPECT_THAT(err_.str(), HasSubstr("geo: The record of what is installed"));
	EXPECT_TRUE(std::filesystem::exists(kMark));
	EXPECT_FALSE(std::filesystem::exists(kSecondMark));
}

TEST_F(VolumeCommandTest, TakesItsOwnMarksAwayWhenNoVolumeIsAdopted) {
	Install(first_);
	InstallSecond(first_);
	WriteFile(kSecondMark, "");
	UseVolume("");
	WriteFile("/usr/tarn/etc/volumes.conf", "directory " + first_ + "\nexclude " + first_ + "\n");
	EXPECT_THAT(Run(kVolumeMountedCommand.run, first_), HasSubstr("is not suitable"));
	EXPECT_FALSE(std::filesystem::exists(kMark));
	EXPECT_THROW(kInitCommand.run(services_, options_), dataupdate::UpdateError);
	EXPECT_FALSE(std::filesystem::exists(kMark));
	EXPECT_TRUE(std::filesystem::exists(kSecondMark));
}

TEST_F(VolumeCommandTest, MovesAwayFromAVolumeThatIsNotListedAnyMore) {
	Install(first_);
	ListVolumes({second_});
	EXPECT_EQ(Run(kVolumeUnmountingCommand.run, first_),
	    "The databases were moved from " + first_ + " to " + second_ + ".\n");
	EXPECT_EQ(ReadFile(second_ + kFile), "content");
}

TEST_F(VolumeCommandTest, GivesUpAVolumeThatDoesNotAnswer) {
	UseVolume(first_);
	const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
	const std::string options = "rootmode=40000,user_id=0,group_id=0,fd=" + std::to_string(device);
	const bool mounted = device >= 0 && mount("none", first_.c_str(), "fuse", 0, options.c_str()) == 0;
	if (device >= 0) {
		close(device); // Whose end it is that answers.
	}
	if (!mounted) {
		GTEST_SKIP() << "nothing can be mounted here";
	}
	EXPECT_THAT(Run(kVolumeUnmountingCommand.run, first_), HasSubstr("was given up, so no volume is in use"));
	EXPECT_EQ(umount2(first_.c_str(), MNT_DETACH), 0);
	EXPECT_EQ(Volume(), "");
}

TEST_F(VolumeCommandTest, GivesNothingUpWhenNobodyCanTellWhetherAVolumeIsThere) {
	Install(first_);
	for (const int error : {EMFILE, EACCES, EIO, ENOMEM}) {
		services_.is_available = [error](const std::string&) {
			TLIBCErrSet(error);
			return false;
		};
		const std::string refusal = Refusal(kVolumeUnmountingCommand.run, first_);
		EXPECT_THAT(refusal, HasSubstr("so nothing was changed (" + std::string(std::strerror(error)) + ")"));
		EXPECT_EQ(Volume(), first_);
	}
}

TEST_F(VolumeCommandTest, FailsWithTheCauseWhenNoVolumesCanBeListed) {
	Install(first_);
	ListVolumes({});
	EXPECT_THAT(
	    Refusal(kVolumeUnmountingCommand.run, first_), HasSubstr("could not be moved: Failed to enum all volumes: "));
	EXPECT_FALSE(std::filesystem::exists(kMark));
	EXPECT_EQ(ReadFile(first_ + kFile), "content");
}

TEST_F(VolumeCommandTest, LeavesTheVolumeOfAnotherRunThatWasFaster) {
	const auto config = std::make_shared<testing::NiceMock<test::MockServiceConfig>>();
	services_.config = config;
	EXPECT_CALL(*config, SetCurVolume).Times(0);
	EXPECT_CALL(*config, GetCurVolume).WillOnce(Return(first_)).WillRepeatedly(Return(second_));
	EXPECT_EQ(Run(kVolumeUnmountingCommand.run, first_), "The databases are not on " + first_ + ".\n");
	EXPECT_CALL(*config, GetCurVolume).WillOnce(Return("")).WillRepeatedly(Return(second_));
	EXPECT_EQ(Run(kVolumeMountedCommand.run, first_), "The databases stay on " + second_ + ".\n");
}

TEST_F(VolumeCommandTest, HoldsNoLockWhileItWaitsForAnother) {
	Install(first_);
	InstallSecond(first_);
	const char* busy = "/run/data_update/using_zip.lock";
	const auto is_waited_for = [&] {
		std::error_code ignored;
		const std::filesystem::directory_iterator descriptors("/proc/self/fd");
		return std::count_if(begin(descriptors), end(descriptors), [&](const auto& descriptor) {
			return std::filesystem::read_symlink(descriptor, ignored) == busy;
		}) == 2;
	};
	std::future<std::string> move;
	auto reader = std::make_unique<dataupdate::FileLock>(busy, 0);
	move = std::async(std::launch::async, [&] { return Run(kVolumeUnmountingCommand.run, first_); });
	while (!is_waited_for()) {
		std::this_thread::yield();
	}
	for (const char* lock : {dataupdate::kUpdateAnyLock, "/run/data_update/using_geo.lock"}) {
		EXPECT_NO_THROW(dataupdate::FileLock(lock, 5)) << lock;
	}
	EXPECT_EQ(Volume(), first_);
	reader.reset();
	EXPECT_THAT(move.get(), HasSubstr("were moved"));
}

TEST_F(VolumeCommandTest, GivesUpTheVolumeWhenThereIsNoOther) {
	UseVolume(first_);
	ListVolumes({first_});
	WriteFile(first_ + "/@database/autoupdate/geo/file", "content");
	EXPECT_THAT(Run(kVolumeUnmountingCommand.run, first_), HasSubstr("The databases stay on " + first_));
	EXPECT_EQ(Volume(), "");
	EXPECT_EQ(ReadFile(first_ + "/@database/autoupdate/geo/file"), "content");
}

TEST_F(VolumeCommandTest, IgnoresTheEndOfAnotherVolume) {
	UseVolume(first_);
	EXPECT_EQ(Run(kVolumeUnmountingCommand.run, second_), "The databases are not on " + second_ + ".\n");
	EXPECT_EQ(Volume(), first_);
}

TEST_F(VolumeCommandTest, FailsWhenTheDatabasesCannotBeMoved) {
	UseVolume(first_);
	WriteFile(first_ + "/@database/autoupdate/geo/file", "content");
	WriteFile(second_ + "/@database/autoupdate/in the way", "");
	options_.path = first_;
	EXPECT_THROW(kVolumeUnmountingCommand.run(services_, options_), CommandError);
	EXPECT_EQ(Volume(), "");
	EXPECT_EQ(ReadFile(first_ + "/@database/autoupdate/geo/file"), "content");
}

TEST_F(VolumeCommandTest, TouchesNothingBelowAnUpdateOrAReader) {
	UseVolume(first_);
	options_.path = first_;
	options_.timeout_seconds = 0;
	for (const char* lock : {dataupdate::kUpdateAnyLock, "/run/data_update/using_geo.lock"}) {
		const dataupdate::FileLock busy(lock, 0);
		EXPECT_THROW(kVolumeUnmountingCommand.run(services_, options_), dataupdate::UpdateError) << lock;
		EXPECT_EQ(Volume(), first_) << lock;
	}
}

TEST_F(VolumeCommandTest, InitMakesTheLocksOfWhatIsInstalled) {
	WriteFile("/usr/share/data_update/databases.conf", R"({"geo":{},"zip":{}})");
	dataupdate::DatabaseStatus status;
	status.data_version = 3;
	services_.info->SetDatabaseStatus("geo", status);
	EXPECT_EQ(kInitCommand.run(services_, options_), kDone);
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
	EXPECT_THAT(Run(kRefreshCommand.run, ""), HasSubstr("was dropped"));
	EXPECT_FALSE(std::filesystem::exists(dataupdate::kCachedInfo));
	EXPECT_THAT(Run(kRefreshCommand.run, ""), HasSubstr("no document to drop"));
}

} // namespace
} // namespace tarn::ctl
