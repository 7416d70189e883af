#include "dataupdate/installation.h"
#include "host/library/file_check.h"
#include "host/library/recording_info_getter.h"
#include "private_root.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

namespace tarn::ctl {
namespace {

namespace fs = std::filesystem;

using dataupdate::DatabaseStatus;
using test::WriteFile;
using testing::_;
using testing::Return;

/** The host's record as the library's operations ask and record. */
class RecordingTest : public test::FixedPathsTest {
protected:
	void SetUp() override {
		test::FixedPathsTest::SetUp();
		if (IsSkipped()) {
			return;
		}
		ON_CALL(*doubles_.database, GetInstallPrefix).WillByDefault(Return(directory_.Path().string()));
		ON_CALL(*doubles_.info, GetDatabaseStatus).WillByDefault([this](const std::string&) { return listed_; });
		ON_CALL(*doubles_.info, SetDatabaseStatus)
		    .WillByDefault([this](const std::string&, const DatabaseStatus& status) { listed_ = status; });
		doubles_.services.update_notes = notes_;
		WriteFile("/var/lib/data_update/geo/version.json", "{}");
		WriteFile(directory_ / "a", "1");
		WriteFile(directory_ / "b", "1");
		const RecordingInfoGetter fix = Getter(Change::kFix);
		fix.SetDatabaseStatus("geo", Status(1, {directory_ / "a", directory_ / "b"}));
	}
	RecordingInfoGetter Getter(Change change) const {
		return {doubles_.services, [](const std::string&) {}, change};
	}
	DatabaseStatus Status(int version, const std::set<std::string>& names) const {
		DatabaseStatus status;
		status.data_version = version;
		status.file_statuses = dataupdate::CalculateStatus(names, directory_.Path());
		return status;
	}
	/** What the library does for an update by a diff package. */
	void Update(int version, const std::set<std::string>& changed) {
		const RecordingInfoGetter update = Getter(Change::kUpdate);
		update.GetDatabaseStatus("geo");
		update.GetRemoteInfo("geo");
		for (const std::string& name : changed) {
			WriteFile(directory_ / name, std::to_string(version));
		}
		*notes_ = UpdateNote{"geo", changed, false};
		update.SetDatabaseStatus("geo", Status(version, changed));
	}
	std::optional<InstalledFiles> Credible() const { return ReadCredibleFiles("geo", listed_, directory_.Path()); }
	bool IsSound() const {
		const auto record = Credible();
		return record && FindBadFiles(*record, {}, directory_.Path()).empty() &&
		       FindUnknownFiles(*record, directory_.Path()).empty();
	}
	/** The version that a fix lets the library see. */
	int VersionForFix() const { return Getter(Change::kFix).GetDatabaseStatus("geo").data_version; }

	test::TemporaryDirectory directory_;
	test::Doubles doubles_;
	UpdateNotes notes_ = std::make_shared<std::optional<UpdateNote>>();
	DatabaseStatus listed_;
};

TEST_F(RecordingTest, CarriesTheRecordThroughUpdates) {
	ASSERT_TRUE(IsSound());
	Update(2, {"b", "c"});
	EXPECT_TRUE(IsSound());
	EXPECT_FALSE(Credible()->is_from_disk);
	WriteFile(directory_ / "a", "2");
	EXPECT_FALSE(IsSound());
	Update(3, {"c"});
	EXPECT_FALSE(IsSound()) << "the update has not touched the damaged file";
}

TEST_F(RecordingTest, MakesALostRecordAgainBeforeAnUpdate) {
	Update(2, {"b"});
	fs::remove(InstalledFilesPath("geo"));
	Update(3, {"c"});
	EXPECT_TRUE(IsSound());
	EXPECT_TRUE(Credible()->is_from_disk);
}

TEST_F(RecordingTest, MakesALostRecordAgainThoughNothingIsUpdated) {
	fs::remove(InstalledFilesPath("geo"));
	Getter(Change::kUpdate).GetRemoteInfo("geo");
	EXPECT_TRUE(IsSound());
	EXPECT_FALSE(Credible()->is_from_disk) << "the library's record was a full package's";
}

TEST_F(RecordingTest, BelievesNoRecordOfAnotherVersion) {
	listed_ = Status(2, {"b"}); // By a program that knows of no such record.
	Getter(Change::kUpdate).GetRemoteInfo("geo");
	EXPECT_EQ(Credible()->data_version, 2);
	EXPECT_TRUE(Credible()->is_from_disk);
}

TEST_F(RecordingTest, LeavesNoWrongRecordWhenItIsKilledBetweenTheTwo) {
	EXPECT_CALL(*doubles_.info, SetDatabaseStatus).WillOnce([this](const std::string&, const DatabaseStatus& status) {
		listed_ = status;
		throw std::runtime_error("killed");
	});
	WriteFile(directory_ / "a", "forced");
	const RecordingInfoGetter forced = Getter(Change::kForced);
	forced.GetRemoteInfo("geo");
	EXPECT_THROW(forced.SetDatabaseStatus("geo", Status(1, {})), std::runtime_error);
	EXPECT_FALSE(Credible()) << "the version alone is the old record's";
}

TEST_F(RecordingTest, KeepsWhatWasRecordedWhenAnOperationFails) {
	const RecordingInfoGetter update = Getter(Change::kUpdate);
	update.GetRemoteInfo("geo");
	EXPECT_TRUE(IsSound());
}

TEST_F(RecordingTest, MakesNoRecordOfWhatIsNotThereOrHalfReplaced) {
	fs::remove(InstalledFilesPath("geo"));
	dataupdate::MarkUnfinished("geo");
	Getter(Change::kUpdate).GetRemoteInfo("geo");
	dataupdate::ClearReplacementMark("geo");
	EXPECT_FALSE(fs::exists(InstalledFilesPath("geo")));
	ON_CALL(*doubles_.database, GetInstallPrefix).WillByDefault(Return(directory_ / "unmounted"));
	Getter(Change::kUpdate).GetRemoteInfo("geo");
	EXPECT_FALSE(fs::exists(InstalledFilesPath("geo")));
}

TEST_F(RecordingTest, LetsAFixSeeWhatTheLibrarysRecordDoesNotTell) {
	Update(2, {"b"});
	EXPECT_EQ(VersionForFix(), 2);
	WriteFile(directory_ / "a", "damaged");
	EXPECT_EQ(VersionForFix(), -1);
	WriteFile(directory_ / "a", "1");
	WriteFile(directory_ / "unknown", "");
	EXPECT_EQ(VersionForFix(), -1);
	EXPECT_EQ(Getter(Change::kUpdate).GetDatabaseStatus("geo").data_version, 2);
}

TEST_F(RecordingTest, ForcesAVersionOverARecordThatCannotBeRead) {
	EXPECT_CALL(*doubles_.info, GetDatabaseStatus)
	    .WillOnce(testing::Throw(dataupdate::UpdateError("malformed")))
	    .WillRepeatedly([this](const std::string&) { return listed_; });
	const RecordingInfoGetter forced = Getter(Change::kForced);
	EXPECT_EQ(forced.GetRemoteInfo("geo").data_version, 5);
	forced.SetDatabaseStatus("geo", Status(5, {}));
	EXPECT_TRUE(IsSound());
	EXPECT_TRUE(Credible()->is_from_disk);
}

TEST_F(RecordingTest, RecordsAForcedVersionWithoutTrustingDamageFromBefore) {
	WriteFile(directory_ / "a", "damaged");
	const RecordingInfoGetter forced = Getter(Change::kForced);
	forced.GetRemoteInfo("geo");
	fs::remove(directory_ / "b");
	WriteFile(directory_ / "b", "of the package");
	forced.SetDatabaseStatus("geo", Status(5, {}));
	const auto bad = FindBadFiles(*Credible(), {}, directory_.Path());
	ASSERT_EQ(bad.size(), 1U);
	EXPECT_EQ(bad[0].name, "a");
}

TEST_F(RecordingTest, GoesOnWhenTheRecordCannotBeKept) {
	fs::remove(InstalledFilesPath("geo"));
	fs::create_directories(InstalledFilesPath("geo") + "/in the way");
	Update(2, {"b"});
	EXPECT_EQ(listed_.data_version, 2);
	EXPECT_FALSE(Credible());
}

} // namespace
} // namespace tarn::ctl
