#include "dataupdate/installation.h"
#include "host/library/inspection.h"
#include "host/library/listed_files.h"
#include "host/library/operation.h"
#include "private_root.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>

#include <chrono>
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
		WriteFile("/var/lib/data_update/geo/version.json", "{}");
		WriteFile(directory_ / "a", "1");
		WriteFile(directory_ / "b", "1");
		Begin(Change::kFix).Info()->SetDatabaseStatus("geo", Status(1, {directory_ / "a", directory_ / "b"}));
	}
	Operation Begin(Change change) const {
		return {doubles_.services, "geo", change, [] {}};
	}
	/** What the library asks for before it finds that there is nothing to update. */
	void FindNothingToUpdate() const {
		Operation update = Begin(Change::kUpdate);
		update.Info()->GetDatabaseStatus("geo");
		update.Info()->GetRemoteInfo("geo");
	}
	DatabaseStatus Status(int version, const std::set<std::string>& names) const {
		DatabaseStatus status;
		status.data_version = version;
		status.file_statuses = dataupdate::CalculateStatus(names, directory_.Path());
		return status;
	}
	/** What the library does for an update by a diff package. */
	void Update(int version, const std::set<std::string>& changed) {
		doubles_.changed = changed;
		ON_CALL(*doubles_.updater, Update).WillByDefault([=](auto&&...) {
			for (const std::string& name : changed) {
				WriteFile(directory_ / name, std::to_string(version));
			}
			return Status(version, changed);
		});
		Operation update = Begin(Change::kUpdate);
		const DatabaseStatus before = update.Info()->GetDatabaseStatus("geo");
		const dataupdate::RemoteInfo remote = update.Info()->GetRemoteInfo("geo");
		update.Info()->SetDatabaseStatus("geo", update.Updater()->Update("geo", before, remote, {}, "", "", ""));
	}
	std::optional<InstalledFiles> Credible() const { return ReadCredibleFiles("geo", listed_, directory_.Path()); }
	bool IsSound() const {
		const auto record = Credible();
		return record && FindBadFiles(*record, {}, directory_.Path()).empty() &&
		       FindUnknownFiles(*record, directory_.Path()).empty();
	}
	/** The version that a fix lets the library see. */
	int VersionForFix() const { return Begin(Change::kFix).Info()->GetDatabaseStatus("geo").data_version; }

	test::TemporaryDirectory directory_;
	test::Doubles doubles_;
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
	FindNothingToUpdate();
	EXPECT_TRUE(IsSound());
	EXPECT_FALSE(Credible()->is_from_disk) << "the library's record was a full package's";
}

TEST_F(RecordingTest, ReadsNoWholeRecordWhenNothingIsUpdated) {
	FindNothingToUpdate();
	const std::string path = InstalledFilesPath("geo");
	std::string content = test::ReadFile(path);
	content.replace(content.find("rebuilt"), 1, "\""); // Whoever read on would make it again.
	WriteFile(path, content);
	EXPECT_CALL(*doubles_.info, GetDatabaseStatus).Times(1);
	FindNothingToUpdate();
	EXPECT_EQ(test::ReadFile(path), content);
}

TEST_F(RecordingTest, MakesARecordAgainThatIsCutOff) {
	const std::string content = test::ReadFile(InstalledFilesPath("geo"));
	WriteFile(InstalledFilesPath("geo"), content.substr(0, content.size() - 2));
	FindNothingToUpdate();
	EXPECT_TRUE(IsSound());
}

TEST_F(RecordingTest, ComparesARecordThatIsOlderThanTheLibrarys) {
	const std::string path = InstalledFilesPath("geo");
	WriteFile(directory_ / "a", "2");
	listed_ = Status(1, {directory_ / "a", directory_ / "b"}); // By a program that knows of no such record.
	fs::last_write_time(path, fs::last_write_time(path) - std::chrono::seconds(5));
	FindNothingToUpdate();
	EXPECT_TRUE(IsSound());
	fs::last_write_time(path, fs::last_write_time(path) - std::chrono::seconds(5));
	const std::string content = test::ReadFile(path);
	FindNothingToUpdate();
	EXPECT_EQ(test::ReadFile(path), content);
	EXPECT_TRUE(SeemsCurrent("geo", 1)) << "it has been compared";
}

TEST_F(RecordingTest, BelievesNoRecordOfAnotherVersion) {
	listed_ = Status(2, {"b"}); // By a program that knows of no such record.
	FindNothingToUpdate();
	EXPECT_EQ(Credible()->data_version, 2);
	EXPECT_TRUE(Credible()->is_from_disk);
}

TEST_F(RecordingTest, LeavesNoWrongRecordWhenItIsKilledBetweenTheTwo) {
	EXPECT_CALL(*doubles_.info, SetDatabaseStatus).WillOnce([this](const std::string&, const DatabaseStatus& status) {
		listed_ = status;
		throw std::runtime_error("killed");
	});
	WriteFile(directory_ / "a", "forced");
	Operation forced = Begin(Change::kForced);
	forced.Info()->GetRemoteInfo("geo");
	EXPECT_THROW(forced.Info()->SetDatabaseStatus("geo", Status(1, {})), std::runtime_error);
	EXPECT_FALSE(Credible()) << "the version alone is the old record's";
}

TEST_F(RecordingTest, KeepsWhatWasRecordedWhenAnOperationFails) {
	FindNothingToUpdate();
	EXPECT_TRUE(IsSound());
}

TEST_F(RecordingTest, MakesNoRecordOfWhatIsNotThereOrHalfReplaced) {
	fs::remove(InstalledFilesPath("geo"));
	dataupdate::MarkUnfinished("geo");
	FindNothingToUpdate();
	dataupdate::ClearReplacementMark("geo");
	EXPECT_FALSE(fs::exists(InstalledFilesPath("geo")));
	ON_CALL(*doubles_.database, GetInstallPrefix).WillByDefault(Return(directory_ / "unmounted"));
	FindNothingToUpdate();
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
	EXPECT_EQ(Begin(Change::kUpdate).Info()->GetDatabaseStatus("geo").data_version, 2);
}

TEST_F(RecordingTest, ForcesAVersionOverARecordThatCannotBeRead) {
	EXPECT_CALL(*doubles_.info, GetDatabaseStatus)
	    .WillOnce(testing::Throw(dataupdate::UpdateError("malformed")))
	    .WillRepeatedly([this](const std::string&) { return listed_; });
	Operation forced = Begin(Change::kForced);
	EXPECT_EQ(forced.Info()->GetRemoteInfo("geo").data_version, 5);
	forced.Info()->SetDatabaseStatus("geo", Status(5, {}));
	EXPECT_TRUE(IsSound());
	EXPECT_TRUE(Credible()->is_from_disk);
}

TEST_F(RecordingTest, RecordsAForcedVersionWithoutTrustingDamageFromBefore) {
	WriteFile(directory_ / "a", "damaged");
	Operation forced = Begin(Change::kForced);
	forced.Info()->GetRemoteInfo("geo");
	fs::remove(directory_ / "b");
	WriteFile(directory_ / "b", "of the package");
	forced.Info()->SetDatabaseStatus("geo", Status(5, {}));
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
