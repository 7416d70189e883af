#include "dataupdate/file_lock.h"
#include "dataupdate/paths.h"
#include "host/library/failure.h"
#include "host/library/preparation.h"
#include "host/library/process.h"
#include "host/library/services.h"
#include "private_root.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"
#include "two_volumes.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <sstream>
#include <string>

namespace tarn::ctl {
namespace {

using test::WriteFile;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Return;

constexpr char kWritable[] = " can be written by its group or by others";
constexpr char kRemedy[] =
    ", so nothing was changed: others could have files installed that nobody signed; it must be a directory of root "
    "that nobody else can write";

/** What a refusal says; empty when nothing was refused. */
std::string Refusal(const std::function<void()>& action) {
	try {
		action();
	} catch (const CommandError& error) {
		return error.what();
	}
	return "";
}

class SafePlacesTest : public TwoVolumesTest {
protected:
	SafePlacesTest() : TwoVolumesTest(R"({"geo":{"install_dest":"%VOLUME%"},"root":{"install_dest":"%ROOTFS%"}})") {}

	static void Open(const std::string& path) { ASSERT_EQ(chmod(path.c_str(), 01777), 0); }
	std::string RefusalOf(ExitCode (*command)(const Services&, const Options&), const std::string& path = "") {
		options_.path = path;
		return Refusal([&] { command(services_, options_); });
	}
};

TEST_F(SafePlacesTest, AreAllThatIsNeededOfAVolumeInUse) {
	UseVolume(first_);
	EXPECT_EQ(Refusal([&] { RequireSafePlaces(services_, "geo"); }), "");
	std::filesystem::create_directories(first_ + "/@tmp");
	Open(first_ + "/@tmp");
	for (const char* id : {"geo", "root"}) {
		EXPECT_EQ(Refusal([&] { RequireSafePlaces(services_, id); }), first_ + "/@tmp" + kWritable + kRemedy) << id;
	}
}

TEST_F(SafePlacesTest, EndWithTheDatabasesOwnDirectory) {
	UseVolume(first_);
	std::filesystem::create_directories(first_ + "/@database/autoupdate");
	std::filesystem::create_directory_symlink("/var", first_ + "/@database/autoupdate/geo");
	std::filesystem::create_directories("/var/db/root");
	Open("/var/db/root");
	EXPECT_EQ(Refusal([&] { RequireSafePlaces(services_, "geo"); }),
	    first_ + "/@database/autoupdate/geo is a link" + kRemedy);
	EXPECT_EQ(
	    Refusal([&] { RequireSafePlaces(services_, "root"); }), std::string("/var/db/root") + kWritable + kRemedy);
}

TEST_F(SafePlacesTest, DecideWhichVolumeIsChosen) {
	Open(first_);
	EXPECT_EQ(Run(kInitCommand.run), "The databases are on " + second_ + ".\n");
	EXPECT_FALSE(std::filesystem::exists(first_ + "/@database"));
}

TEST_F(SafePlacesTest, AreNamedWhenNoVolumeIsChosen) {
	Open(first_);
	std::filesystem::create_directory_symlink("/var", second_ + "/@tmp");
	const std::string refusal = RefusalOf(kInitCommand.run);
	EXPECT_THAT(refusal, HasSubstr(first_ + kWritable + ", " + second_ + "/@tmp is a link; "));
	EXPECT_EQ(Volume(), "");
}

TEST_F(SafePlacesTest, AreAskedForOfTheVolumeInUseAtTheStart) {
	UseVolume(first_);
	Open(first_);
	EXPECT_EQ(RefusalOf(kInitCommand.run), first_ + kWritable + kRemedy);
}

TEST_F(SafePlacesTest, DecideWhetherAMountedVolumeIsAdopted) {
	Open(first_);
	EXPECT_THAT(
	    Run(kVolumeMountedCommand.run, first_), HasSubstr(first_ + " is not suitable: " + first_ + kWritable + "; "));
	EXPECT_EQ(Volume(), "");
	options_.json = true;
	EXPECT_THAT(Run(kVolumeMountedCommand.run, first_), HasSubstr("\"problem\" : \"" + first_ + kWritable + "\""));
}

TEST_F(SafePlacesTest, AreAskedForOfTheVolumeToWhichDatabasesMove) {
	UseVolume(first_);
	WriteFile(first_ + "/@database/autoupdate/geo/file", "content");
	Open(second_);
	EXPECT_THAT(Run(kVolumeUnmountingCommand.run, first_),
	    EndsWith("What is not safe is not used: " + second_ + kWritable + ".\n"));
	EXPECT_EQ(test::ReadFile(first_ + "/@database/autoupdate/geo/file"), "content");
	EXPECT_FALSE(std::filesystem::exists(second_ + "/@database"));
}

TEST_F(SafePlacesTest, AreAskedForOfTheVolumeThatDatabasesLeave) {
	UseVolume(first_);
	WriteFile(first_ + "/@database/autoupdate/geo/file", "planted");
	Open(first_ + "/@database");
	EXPECT_EQ(RefusalOf(kVolumeUnmountingCommand.run, first_), first_ + "/@database" + kWritable + kRemedy);
	EXPECT_EQ(Volume(), first_);
	EXPECT_FALSE(std::filesystem::exists(second_ + "/@database"));
}

TEST_F(SafePlacesTest, AreToldOfByVolumeShow) {
	UseVolume(first_);
	Open(first_);
	EXPECT_THAT(Run(kVolumeShowCommand.run), EndsWith(", not safe: " + first_ + kWritable + "\n"));
	options_.json = true;
	EXPECT_THAT(Run(kVolumeShowCommand.run), HasSubstr("\"safe\" : false"));
}

TEST_F(SafePlacesTest, StopUpdatesBeforeTheyWriteAndAreToldOfByStatus) {
	test::Doubles doubles;
	doubles.Install(1);
	ON_CALL(*doubles.config, GetCurVolume).WillByDefault(Return(first_));
	Open(first_);
	EXPECT_CALL(*doubles.updater, Update).Times(0);
	Options options;
	options.ids = {"geo"};
	EXPECT_EQ(kUpdateCommand.run(doubles.services, options), kFailed);
	EXPECT_THAT(doubles.err.str(), HasSubstr("geo: " + first_ + kWritable + kRemedy));
	doubles.err.str("");
	EXPECT_EQ(kStatusCommand.run(doubles.services, options), kDone);
	EXPECT_THAT(doubles.err.str(), HasSubstr("Nothing is updated, because the volume is not safe: "));
	options.json = true;
	EXPECT_EQ(kStatusCommand.run(doubles.services, options), kDone);
	EXPECT_THAT(doubles.out.str(), HasSubstr("\"volume_problem\" : \"" + first_ + kWritable + "\""));
}

mode_t ModeOf(const std::string& path) {
	struct stat status {};
	EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
	return status.st_mode & 07777;
}

ino_t NumberOf(const std::string& path) {
	struct stat status {};
	EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
	return status.st_ino;
}

constexpr char kUpdateLock[] = "/run/data_update/update_geo.lock";

class LockFilesTest : public test::FixedPathsTest {
protected:
	void SetUp() override {
		test::FixedPathsTest::SetUp();
		if (!IsSkipped()) {
			std::filesystem::create_directories("/run/data_update");
			ASSERT_EQ(chmod("/run/data_update", 0755), 0);
		}
	}
	void Prepare() const { PrepareLockFiles(doubles_.services); }

	test::Doubles doubles_;
};

TEST_F(LockFilesTest, CanBeOpenedByRootAlone) {
	Prepare();
	for (const char* path : {dataupdate::kUpdateAnyLock, dataupdate::kFreshInfoLock, dataupdate::kConfigLock,
	         kUpdateLock, "/run/data_update/update_zip.lock"}) {
		EXPECT_EQ(ModeOf(path), 0600U) << path;
		const dataupdate::FileLock lock(path, 0);
		EXPECT_EQ(ModeOf(path), 0600U) << path;
	}
}

TEST_F(LockFilesTest, OfAnEarlierVersionAreShutAndNeverReplaced) {
	std::filesystem::remove(kUpdateLock);
	WriteFile(kUpdateLock, "");
	ASSERT_EQ(chmod(kUpdateLock, 0644), 0);
	const dataupdate::FileLock held(kUpdateLock, 0);
	const ino_t number = NumberOf(kUpdateLock);
	Prepare();
	EXPECT_EQ(ModeOf(kUpdateLock), 0600U);
	EXPECT_EQ(NumberOf(kUpdateLock), number);
}

TEST_F(LockFilesTest, OfReadersStayOpenToAll) {
	const char* path = "/run/data_update/using_geo.lock";
	const mode_t callers = umask(077);
	EXPECT_TRUE(MakeReaderLockFile("geo"));
	umask(callers);
	EXPECT_EQ(ModeOf(path), 0644U);
	Prepare();
	EXPECT_EQ(ModeOf(path), 0644U);
}

TEST_F(LockFilesTest, AreNoLinks) {
	WriteFile("/run/data_update/elsewhere", "");
	std::filesystem::remove(kUpdateLock);
	std::filesystem::create_symlink("elsewhere", kUpdateLock);
	EXPECT_EQ(Refusal([&] { Prepare(); }),
	    std::string(kUpdateLock) +
	        " is a link, so others could hold off all updates; see who made it, remove it and run "
	        "\"tarndbudctl init\"");
}

TEST_F(LockFilesTest, AreRegularFiles) {
	std::filesystem::remove(kUpdateLock);
	ASSERT_EQ(mkfifo(kUpdateLock, 0600), 0);
	EXPECT_THAT(Refusal([&] { Prepare(); }), HasSubstr("is no file of root's, so others could hold off all updates"));
}

TEST_F(LockFilesTest, LieInADirectoryThatOthersCanEnterAndNotWrite) {
	ASSERT_EQ(chmod("/run/data_update", 0700), 0);
	Prepare();
	EXPECT_EQ(ModeOf("/run/data_update"), 0755U);
	ASSERT_EQ(chmod("/run/data_update", 01777), 0);
	EXPECT_THAT(Refusal([&] { Prepare(); }), HasSubstr(std::string("/run/data_update") + kWritable));
	ASSERT_EQ(chmod("/run/data_update", 0755), 0);
}

TEST_F(LockFilesTest, AreMadeWithoutAListOfDatabases) {
	ON_CALL(*doubles_.config, GetDatabaseIDs).WillByDefault([]() -> std::vector<std::string> {
		throw dataupdate::UpdateError("Fail to decode: databases.conf");
	});
	Prepare();
	EXPECT_EQ(ModeOf(dataupdate::kUpdateAnyLock), 0600U);
}

TEST(OwnUmaskTest, IsNotTheCallersWhichIsRemembered) {
	const mode_t before = umask(027);
	SetOwnUmask();
	EXPECT_EQ(CallersUmask(), 027U);
	EXPECT_EQ(umask(before), 022U);
}

} // namespace
} // namespace tarn::ctl
