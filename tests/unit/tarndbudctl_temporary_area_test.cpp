#include "dataupdate/file_lock.h"
#include "dataupdate/paths.h"
#include "host/commands/operation.h"
#include "host/library/preparation.h"
#include "two_volumes.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace tarn::ctl {
namespace {

using test::WriteFile;

/** Two volumes, each with files that a killed run left; the first one is in use. */
class TemporaryAreaTest : public TwoVolumesTest {
protected:
	TemporaryAreaTest() : TwoVolumesTest(R"({"geo":{"install_dest":"%VOLUME%"}})") {}

	void SetUp() override {
		TwoVolumesTest::SetUp();
		if (IsSkipped()) {
			return;
		}
		for (const std::string& volume : {first_, second_}) {
			WriteFile(Left(volume), "a part of a package");
		}
		UseVolume(first_);
	}
	static std::string Left(const std::string& volume) { return volume + "/@tmp/data_update/geo_full/file"; }
	static bool IsLeft(const std::string& volume) { return std::filesystem::exists(Left(volume)); }
};

TEST_F(TemporaryAreaTest, IsClearedBeforeAnyOperation) {
	Report report(services_, options_);
	bool was_left = true;
	const ExitCode code = RunOperation(services_, report, "geo", "update", [&] {
		was_left = IsLeft(first_);
		return kDone;
	});
	EXPECT_EQ(code, kDone);
	EXPECT_FALSE(was_left);
}

TEST_F(TemporaryAreaTest, IsClearedByInit) {
	Run(kInitCommand.run);
	EXPECT_FALSE(IsLeft(first_));
}

TEST_F(TemporaryAreaTest, StaysOnAVolumeThatIsNotInUse) {
	ClearTemporaryArea(services_);
	EXPECT_TRUE(IsLeft(second_));
	UseVolume("");
	ClearTemporaryArea(services_);
	EXPECT_TRUE(IsLeft(second_));
}

TEST_F(TemporaryAreaTest, StaysWhileAReplacementCanBeFinishedFromIt) {
	services_.find_prepared = [this](const std::string& id, const std::string& volume, const std::string&) {
		return id == "geo" && volume == first_ ? std::optional(5) : std::nullopt;
	};
	ClearTemporaryArea(services_);
	EXPECT_TRUE(IsLeft(first_));
}

TEST_F(TemporaryAreaTest, IsClearedAfterAReplacementThatCannotBeFinished) {
	WriteFile("/var/lib/data_update/geo/replacing", "");
	ClearTemporaryArea(services_);
	EXPECT_FALSE(IsLeft(first_)) << "the repair may need the room";
}

TEST_F(TemporaryAreaTest, StaysWhileAnUpdateUsesIt) {
	const dataupdate::FileLock update(dataupdate::kUpdateAnyLock, 0);
	ClearTemporaryArea(services_);
	EXPECT_TRUE(IsLeft(first_));
}

TEST_F(TemporaryAreaTest, StaysBelowTheMountPointOfAVolumeThatIsAway) {
	ListVolumes({second_});
	ClearTemporaryArea(services_);
	EXPECT_TRUE(IsLeft(first_));
}

/** Whoever can write there could have had anything removed. */
TEST_F(TemporaryAreaTest, StaysOnAVolumeThatOthersCanWrite) {
	std::filesystem::permissions(first_ + "/@tmp", std::filesystem::perms::all);
	ClearTemporaryArea(services_);
	EXPECT_TRUE(IsLeft(first_));
}

} // namespace
} // namespace tarn::ctl
