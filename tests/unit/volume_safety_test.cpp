#include "base/volume_safety.h"
#include "platform/tarnsdk/volume_list.h"
#include "syslog_capture.h"
#include "temporary_directory.h"

#include <tarnsdk/volume.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace {

using tarn::FindUnsafePlace;
using tarn::FindUnsafePlaceOnVolume;
using tarn::UnsafePlace;
using testing::HasSubstr;

constexpr char kWritable[] = "can be written by its group or by others";
constexpr char kOther[] = "belongs to another user";
constexpr char kLink[] = "is a link";
constexpr uid_t kOtherUser = 1;

/** A volume below a directory of the test's, with all that databases need on it. */
class VolumeSafety : public testing::Test {
protected:
	VolumeSafety() {
		std::filesystem::create_directories(volume_ + "/@tmp/data_update");
		std::filesystem::create_directories(volume_ + "/@database/autoupdate");
		for (const char* below : {"", "/@tmp", "/@tmp/data_update", "/@database", "/@database/autoupdate"}) {
			SetMode(volume_ + below, 0755);
		}
		SetMode(place_, 0755);
	}

	static void SetMode(const std::string& path, mode_t mode) { ASSERT_EQ(chmod(path.c_str(), mode), 0) << path; }

	/** "<path> <reason>" of the volume, empty when it is safe. */
	std::string Problem() const { return Text(FindUnsafePlaceOnVolume(volume_)); }
	static std::string Text(const std::optional<UnsafePlace>& unsafe) {
		return unsafe ? unsafe->path + " " + unsafe->reason : "";
	}

	/** Puts a link to a directory like it in a directory's place. */
	void ReplaceByLink(const std::string& below) const {
		const std::string elsewhere = directory_ / "elsewhere";
		std::filesystem::rename(volume_ + below, elsewhere);
		std::filesystem::create_directory_symlink(elsewhere, volume_ + below);
	}

	tarn::test::SyslogCapture log_;
	tarn::test::TemporaryDirectory directory_;
	const std::string place_ = (std::filesystem::create_directories(directory_ / "place"), directory_ / "place");
	const std::string volume_ = place_ + "/volume";
};

TEST_F(VolumeSafety, IsGivenWhereOnlyTheOwnerWrites) {
	EXPECT_EQ(Problem(), "");
	EXPECT_TRUE(tarn::sdk::MayHostServiceData(directory_ / "absent.conf", volume_));
	EXPECT_EQ(log_.Lines().size(), 0U);
}

TEST_F(VolumeSafety, IsGivenWhereNothingWasMadeYet) {
	std::filesystem::remove_all(volume_ + "/@tmp");
	std::filesystem::remove_all(volume_ + "/@database");
	EXPECT_EQ(Problem(), "");
	EXPECT_EQ(Text(FindUnsafePlace(volume_ + "/@database/autoupdate/geo")), "");
}

/** Each directory on a volume in which the databases' files are made. */
class VolumeDirectory : public VolumeSafety, public testing::WithParamInterface<const char*> {};

TEST_P(VolumeDirectory, IsRefusedWhenOthersMayWrite) {
	const std::string path = volume_ + GetParam();
	for (const mode_t mode : {0775U, 0757U, 0777U, 01777U}) {
		SetMode(path, mode);
		EXPECT_EQ(Problem(), path + " " + kWritable) << std::oct << mode;
	}
}

TEST_P(VolumeDirectory, IsRefusedWhenItIsAnotherUsers) {
	const std::string path = volume_ + GetParam();
	if (chown(path.c_str(), kOtherUser, kOtherUser) != 0) {
		GTEST_SKIP() << "nothing can be given away here: " << std::strerror(errno);
	}
	EXPECT_EQ(Problem(), path + " " + kOther);
}

TEST_P(VolumeDirectory, IsRefusedWhenItIsALink) {
	ReplaceByLink(GetParam());
	EXPECT_EQ(Problem(), volume_ + GetParam() + " " + kLink);
}

TEST_P(VolumeDirectory, IsRefusedWhenItIsAFileUnlessAMoveReplacesThat) {
	std::filesystem::remove_all(volume_ + GetParam());
	tarn::test::WriteFile(volume_ + GetParam(), "");
	const bool is_replaced = GetParam() == std::string("/@database/autoupdate");
	EXPECT_EQ(Problem(), is_replaced ? "" : volume_ + GetParam() + " is no directory");
}

INSTANTIATE_TEST_SUITE_P(All, VolumeDirectory,
    testing::Values("", "/@tmp", "/@tmp/data_update", "/@database", "/@database/autoupdate"),
    [](const testing::TestParamInfo<const char*>& parameter) { return std::to_string(parameter.index); });

TEST_F(VolumeSafety, IsRefusedToALinkThatLeadsNowhere) {
	std::filesystem::remove_all(volume_ + "/@tmp");
	std::filesystem::create_symlink("/nowhere", volume_ + "/@tmp");
	EXPECT_EQ(Problem(), volume_ + "/@tmp " + kLink);
}

TEST_F(VolumeSafety, IsRefusedWhereOthersCanRenameTheRoot) {
	SetMode(place_, 0777);
	EXPECT_EQ(Problem(), place_ + " " + kWritable);
	SetMode(place_, 01777); // Where only the owner renames.
	EXPECT_EQ(Problem(), "");
}

TEST_F(VolumeSafety, FollowsLinksOnTheWayAndLooksWhereTheyLead) {
	std::filesystem::create_directory_symlink("place", directory_ / "relative");
	std::filesystem::create_directory_symlink(directory_ / "relative/../place", directory_ / "absolute");
	const std::string volume = directory_ / "absolute/volume";
	EXPECT_EQ(Text(FindUnsafePlaceOnVolume(volume)), "");
	SetMode(place_, 0777);
	EXPECT_EQ(Text(FindUnsafePlaceOnVolume(volume)), place_ + " " + kWritable);
}

TEST_F(VolumeSafety, IsRefusedBehindALinkOfAnotherUser) {
	std::filesystem::create_directory_symlink("place", directory_ / "link");
	if (lchown((directory_ / "link").c_str(), kOtherUser, kOtherUser) != 0) {
		GTEST_SKIP() << "nothing can be given away here: " << std::strerror(errno);
	}
	EXPECT_EQ(Text(FindUnsafePlaceOnVolume(directory_ / "link/volume")), directory_ / "link " + kOther);
}

TEST_F(VolumeSafety, EndsWithLinksThatGoRound) {
	std::filesystem::create_directory_symlink("round", directory_ / "round");
	EXPECT_THAT(Text(FindUnsafePlaceOnVolume(directory_ / "round/volume")), HasSubstr("Too many levels"));
}

TEST_F(VolumeSafety, OfOneDirectoryCountsTheDirectoryItself) {
	const std::string database = volume_ + "/@database/autoupdate/geo";
	std::filesystem::create_directory(database);
	SetMode(database, 0777);
	EXPECT_EQ(Problem(), "") << "a volume's databases are judged one by one";
	EXPECT_EQ(Text(FindUnsafePlace(database)), database + " " + kWritable);
}

TEST_F(VolumeSafety, DecidesWhetherAVolumeMayHostServiceData) {
	SetMode(volume_, 01777);
	TARNMountVolInfo record = {};
	volume_.copy(record.mount_path, sizeof record.mount_path - 1);
	EXPECT_EQ(TARNVolumeServicePolicy(&record), 0);
	EXPECT_EQ(log_.Count(LOG_WARNING, {"volume '" + volume_ + "' is refused: '" + volume_ + "' " + kWritable}), 1U);
	SetMode(volume_, 0755);
	EXPECT_NE(TARNVolumeServicePolicy(&record), 0);
}

} // namespace
