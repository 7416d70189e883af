#include "dataupdate/update_error.h"
#include "host/library/install_place.h"
#include "private_root.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace tarn::ctl {
namespace {

using dataupdate::DatabaseStatus;
using dataupdate::DiffInfo;
using dataupdate::FileStatus;
using dataupdate::UpdateError;
using testing::_;
using testing::HasSubstr;
using testing::Return;
using testing::Throw;

constexpr char kHere[] = "/volume1/@database/autoupdate/geo";
constexpr char kElsewhere[] = "/var/db/geo";

/** Version 3 is recorded, 5 is offered by diff packages, and the settings have the database on the volume. */
class InstallPlaceTest : public test::FixedPathsTest {
protected:
	InstallPlaceTest() {
		doubles_.Install(3);
		ON_CALL(*doubles_.info, GetDiffInfos)
		    .WillByDefault(Return(std::map<int, DiffInfo>{{4, {"http://x/4", 1}}, {5, {"http://x/5", 1}}}));
	}

	void Record(const std::string& file) {
		DatabaseStatus status;
		status.data_version = 3;
		status.file_statuses.emplace(file, FileStatus("d"));
		ON_CALL(*doubles_.info, GetDatabaseStatus).WillByDefault(Return(status));
	}
	std::optional<std::string> OldPlace() { return FindOldPlace(doubles_.services, "geo"); }
	int Installed() { return ReadInstalled(doubles_.services, "geo").data_version; }
	ExitCode Run(const Command& command) {
		Options options;
		options.ids = {"geo"};
		return command.run(doubles_.services, options);
	}

	test::Doubles doubles_;
};

TEST_F(InstallPlaceTest, CountsOnlyWhatIsInstalledWhereTheSettingsHaveIt) {
	EXPECT_EQ(Installed(), 3);
	RecordInstallPlace("geo", kHere);
	EXPECT_EQ(OldPlace(), std::nullopt);
	EXPECT_EQ(Installed(), 3);
	RecordInstallPlace("geo", kElsewhere);
	EXPECT_EQ(OldPlace(), kElsewhere);
	EXPECT_EQ(Installed(), -1);
	EXPECT_EQ(ReadRecorded(doubles_.services, "geo").data_version, 3);
}

TEST_F(InstallPlaceTest, IsToldByAbsoluteNamesWithoutARecord) {
	Record(std::string(kElsewhere) + "/geo/file");
	EXPECT_EQ(OldPlace(), kElsewhere);
	Record("/srv/geo/@database/autoupdate/geo/geo/file"); // Never a directory above the database's own.
	EXPECT_EQ(OldPlace(), "/srv/geo/@database/autoupdate/geo");
	Record(std::string(kHere) + "2/file"); // Of another directory whose name begins alike.
	EXPECT_EQ(OldPlace(), std::string(kHere) + "2");
	Record(std::string(kHere) + "/file");
	EXPECT_EQ(OldPlace(), std::nullopt);
	Record("geo/file");
	EXPECT_EQ(OldPlace(), std::nullopt);
}

TEST_F(InstallPlaceTest, IsToldByAbsoluteNamesWhenTheRecordIsDamaged) {
	test::WriteFile(InstallPlacePath("geo"), R"({"directory":)");
	Record(std::string(kElsewhere) + "/file");
	EXPECT_EQ(OldPlace(), kElsewhere);
}

TEST_F(InstallPlaceTest, IsUnknownWithoutAVolumeOrUsableSettings) {
	RecordInstallPlace("geo", kElsewhere);
	ON_CALL(*doubles_.database, GetRootDirectory).WillByDefault(Return(""));
	EXPECT_EQ(OldPlace(), std::nullopt);
	EXPECT_EQ(Installed(), 3);
	ON_CALL(*doubles_.database, GetRootDirectory).WillByDefault(Throw(UpdateError("Invalid value")));
	EXPECT_EQ(OldPlace(), std::nullopt);
}

TEST_F(InstallPlaceTest, IsTheSameByAnotherName) {
	const test::TemporaryDirectory directory;
	std::filesystem::create_directory(directory / "place");
	std::filesystem::create_symlink(directory / "place", directory / "link");
	ON_CALL(*doubles_.database, GetInstallPrefix).WillByDefault(Return(directory / "link"));
	RecordInstallPlace("geo", directory / "place");
	EXPECT_EQ(OldPlace(), std::nullopt);
	RecordInstallPlace("geo", directory.Path().string());
	EXPECT_EQ(OldPlace(), directory.Path().string());
}

TEST_F(InstallPlaceTest, MovesOnlyWhenThereIsARecord) {
	const auto move = [](const std::string& directory) { return directory + "2"; };
	MoveInstallPlace("geo", move);
	EXPECT_FALSE(std::filesystem::exists(InstallPlacePath("geo")));
	RecordInstallPlace("geo", kElsewhere);
	MoveInstallPlace("geo", move);
	EXPECT_EQ(OldPlace(), std::string(kElsewhere) + "2");
}

TEST_F(InstallPlaceTest, IsLeftByAnUpdateWithoutDiffPackages) {
	RecordInstallPlace("geo", kElsewhere);
	DatabaseStatus installed;
	installed.data_version = 5;
	EXPECT_CALL(*doubles_.updater, Update("geo", DatabaseStatus(), _, std::map<int, DiffInfo>(), _, kHere, _))
	    .WillOnce(Return(installed));
	// A process that is killed before the library's record is written leaves the new directory and the mark.
	EXPECT_CALL(*doubles_.info, SetDatabaseStatus("geo", _)).WillOnce([this](auto&&...) {
		EXPECT_EQ(OldPlace(), std::nullopt);
		doubles_.Install(5);
	});
	EXPECT_EQ(Run(kUpdateCommand), kDone);
	EXPECT_THAT(doubles_.out.str(), HasSubstr("geo: installed version 5"));
	EXPECT_EQ(Installed(), 5);
}

TEST_F(InstallPlaceTest, EndsAnUpdateThatCannotRecordIt) {
	std::filesystem::create_directories(InstallPlacePath("geo"));
	DatabaseStatus installed;
	installed.data_version = 5;
	ON_CALL(*doubles_.updater, Update).WillByDefault(Return(installed));
	EXPECT_CALL(*doubles_.info, SetDatabaseStatus).Times(0);
	EXPECT_EQ(Run(kUpdateCommand), kFailed);
	EXPECT_THAT(doubles_.err.str(), HasSubstr(InstallPlacePath("geo")));
}

TEST_F(InstallPlaceTest, StaysWhenAnUpdateFails) {
	RecordInstallPlace("geo", kElsewhere);
	ON_CALL(*doubles_.updater, Update).WillByDefault(Throw(UpdateError("Disk space is too low")));
	EXPECT_EQ(Run(kUpdateCommand), kFailed);
	EXPECT_EQ(OldPlace(), kElsewhere);
}

TEST_F(InstallPlaceTest, IsNamedByStatusCheckAndPlan) {
	RecordInstallPlace("geo", kElsewhere);
	const std::string both =
	    std::string("it is installed in ") + kElsewhere + ", but databases.conf has it in " + kHere;
	EXPECT_EQ(Run(kStatusCommand), kDone);
	EXPECT_THAT(doubles_.out.str(), HasSubstr(" elsewhere "));
	EXPECT_THAT(doubles_.err.str(), HasSubstr(both));
	doubles_.out.str("");
	EXPECT_EQ(Run(kCheckCommand), kFixNeeded);
	EXPECT_EQ(doubles_.out.str(), "geo: not installed: " + both + "\n");
	doubles_.out.str("");
	EXPECT_EQ(Run(kPlanCommand), kDone);
	EXPECT_THAT(doubles_.out.str(), HasSubstr("full package"));
	EXPECT_THAT(doubles_.out.str(), HasSubstr("geo: " + both + "\n"));
}

TEST_F(InstallPlaceTest, IsNotReadFrom) {
	RecordInstallPlace("geo", kElsewhere);
	Options options;
	options.id = "geo";
	options.command = {"true"};
	try {
		(void)kReadCommand.run(doubles_.services, options);
		FAIL() << "read ran its command";
	} catch (const CommandError& error) {
		EXPECT_EQ(error.Code(), kLocked);
		EXPECT_THAT(error.what(), HasSubstr(std::string("it is installed in ") + kElsewhere));
	}
}

} // namespace
} // namespace tarn::ctl
