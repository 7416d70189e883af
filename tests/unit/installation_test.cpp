#include "dataupdate/installation.h"
#include "dataupdate/internal/activity.h"
#include "fake_system.h"
#include "library_test.h"
#include "private_root.h"

#include <gmock/gmock.h>

#include <syslog.h>

#include <cerrno>
#include <filesystem>
#include <string>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

constexpr char kMark[] = "/var/lib/data_update/geo/replacing";
constexpr char kRecord[] = "/var/lib/data_update/geo/version.json";

class InstallationTest : public test::FixedPathsTest {
protected:
	test::FakeSystem system_;
	test::SyslogCapture log_;
};

TEST_F(InstallationTest, StandsFromSettingToClearing) {
	WriteFile(kRecord, "{}");
	EXPECT_FALSE(IsReplacementMarked("geo"));
	SetReplacementMark("geo");
	EXPECT_TRUE(fs::is_regular_file(kMark));
	EXPECT_TRUE(IsReplacementMarked("geo"));
	EXPECT_FALSE(IsReplacementMarked("poi"));
	ClearReplacementMark("geo");
	EXPECT_FALSE(fs::exists(kMark));
	EXPECT_FALSE(IsReplacementMarked("geo"));
	EXPECT_TRUE(fs::exists(kRecord));
	EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(InstallationTest, MayBeSetAndClearedTwice) {
	WriteFile(kRecord, "{}");
	SetReplacementMark("geo");
	SetReplacementMark("geo");
	EXPECT_TRUE(IsReplacementMarked("geo"));
	ClearReplacementMark("geo");
	ClearReplacementMark("geo");
	EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(InstallationTest, OfAMoveIsSetOnceAndHoldsNoInterruptionBack) {
	RequestInterruption();
	EXPECT_TRUE(MarkUnfinished("geo"));
	EXPECT_TRUE(IsInterrupted());
	ForgetInterruption();
	EXPECT_FALSE(MarkUnfinished("geo"));
	WriteFile(kRecord, "{}");
	EXPECT_TRUE(IsReplacementMarked("geo"));
}

TEST_F(InstallationTest, SaysNothingWithoutARecord) {
	SetReplacementMark("geo");
	EXPECT_TRUE(fs::exists(kMark));
	EXPECT_FALSE(IsReplacementMarked("geo"));
	EXPECT_TRUE(MayBeAMixture("geo")); // For a reader.
	WriteFile(kRecord, "torn");
	EXPECT_TRUE(IsReplacementMarked("geo"));
}

TEST_F(InstallationTest, CountsWhenItCannotBeExamined) {
	WriteFile(kRecord, "{}");
	fs::create_symlink("nowhere", kMark);
	EXPECT_TRUE(IsReplacementMarked("geo"));
	EXPECT_TRUE(IsReplacementMarked(std::string(300, 'x'))); // No file can have such a name.
}

TEST_F(InstallationTest, IsOnTheDiskWithItsDirectoriesBeforeAnythingChanges) {
	for (const int sync : {0, 1}) { // The directory with the name, the directory of that.
		system_.Fail("fsync", EIO, 1, sync);
		EXPECT_EQ(MessageOf([] { SetReplacementMark("geo"); }),
		    std::string("Fail to mark replacement: ") + kMark + ": Input/output error");
	}
	system_.Fail("fsync", EIO, 1, 2);
	SetReplacementMark("geo");
}

TEST_F(InstallationTest, OfAMoveThatCannotBeginIsTakenBack) {
	system_.Fail("fsync", EIO);
	EXPECT_NE(MessageOf([] { MarkUnfinished("geo"); }), "");
	EXPECT_FALSE(fs::exists(kMark));
}

TEST_F(InstallationTest, OfAnEarlierRunStaysWhenItCannotBeSetAgain) {
	WriteFile(kMark, "");
	system_.Fail("fsync", EIO);
	EXPECT_NE(MessageOf([] { SetReplacementMark("geo"); }), "");
	EXPECT_TRUE(fs::exists(kMark));
}

TEST_F(InstallationTest, SaysWhyItCannotBeSet) {
	fs::create_directories("/var/lib/data_update/geo");
	fs::create_symlink("/var/lib/data_update/elsewhere", kMark);
	EXPECT_THAT(MessageOf([] { SetReplacementMark("geo"); }),
	    StartsWith(std::string("Fail to mark replacement: ") + kMark + ": "));
	EXPECT_FALSE(fs::exists("/var/lib/data_update/elsewhere")); // Never written through a link.
	WriteFile("/var/lib/data_update/poi", "in the way");
	EXPECT_THAT(MessageOf([] { SetReplacementMark("poi"); }),
	    AllOf(StartsWith("Fail to mark replacement: "), HasSubstr("/var/lib/data_update/poi")));
}

TEST_F(InstallationTest, StaysUntilTheRecordIsOnTheDisk) {
	WriteFile(kRecord, "{}");
	SetReplacementMark("geo");
	system_.Fail("fsync", EIO);
	ClearReplacementMark("geo");
	EXPECT_TRUE(IsReplacementMarked("geo"));
	EXPECT_THAT(test::Lines(log_), ElementsAre(Line{LOG_ERR, "installation.cpp",
	                                   std::string("Failed to remove ") + kMark + ": Input/output error"}));
}

TEST_F(InstallationTest, LogsThatItCannotBeRemoved) {
	WriteFile(std::string(kMark) + "/in/the/way", "");
	ClearReplacementMark("geo");
	EXPECT_THAT(test::Lines(log_),
	    ElementsAre(Line{LOG_ERR, "installation.cpp", std::string("Failed to remove ") + kMark + ": Is a directory"}));
}

TEST_F(InstallationTest, IsClearedWhereAHostKeepsNoRecord) {
	SetReplacementMark("geo");
	ClearReplacementMark("geo");
	EXPECT_FALSE(fs::exists(kMark));
	EXPECT_THAT(log_.Lines(), IsEmpty());
}

} // namespace
} // namespace tarn::dataupdate
