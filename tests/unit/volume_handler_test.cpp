#include "dataupdate/volume_handler.h"
#include "fake_platform.h"
#include "library_test.h"
#include "mocks.h"

#include <syslog.h>

#include <filesystem>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

constexpr char kSource[] = "volume_handler.cpp";
constexpr char kOverflow[] = "Overflow detection, this may be caused by invalid configurations.";

class VolumeHandlerTest : public testing::Test {
protected:
	VolumeHandlerTest() {
		ON_CALL(*config_, GetDatabaseIDs()).WillByDefault(Return(std::vector<std::string>{"geo", "poi"}));
		ON_CALL(*config_, GetDatabaseConfig(_)).WillByDefault(Return(database_));
		Reserve(50);
		CurrentVolume("");
	}

	void Reserve(unsigned long bytes) const {
		ON_CALL(*database_, GetMinReservedSpaceInbytes()).WillByDefault(Return(bytes));
	}
	void CurrentVolume(const std::string& volume) const {
		ON_CALL(*config_, GetCurVolume()).WillByDefault(Return(volume));
	}
	/** A directory as a volume that is fit in every respect. */
	TARNMountVolInfo& AddVolume(const std::string& name, std::uint64_t free_bytes = 100) {
		fs::create_directory(directory_ / name);
		return platform_.AddVolume(directory_ / name, free_bytes);
	}
	std::string Main(const std::string& volume) const { return directory_ / (volume + "/@database/autoupdate"); }

	test::TemporaryDirectory directory_;
	test::FakePlatform platform_;
	test::SyslogCapture log_;
	std::shared_ptr<NiceMock<test::MockDatabaseConfig>> database_ =
	    std::make_shared<NiceMock<test::MockDatabaseConfig>>();
	std::shared_ptr<NiceMock<test::MockServiceConfig>> config_ = std::make_shared<NiceMock<test::MockServiceConfig>>();
	VolumeHandler handler_{config_};
};

TEST_F(VolumeHandlerTest, KeepsDatabasesInOneDirectoryOfAVolume) {
	EXPECT_EQ(handler_.GetMainDirPath("/volume1"), "/volume1/@database/autoupdate");
}

TEST_F(VolumeHandlerTest, CreatesDirectoriesWithTheirParents) {
	handler_.CreateDirectories(directory_ / "a/b");
	EXPECT_TRUE(fs::is_directory(directory_ / "a/b"));
	EXPECT_NO_THROW(handler_.CreateDirectories(directory_ / "a/b"));
	WriteFile(directory_ / "f", "");
	EXPECT_THAT(MessageOf([&] { handler_.CreateDirectories(directory_ / "f/sub"); }),
	    StartsWith("Failed to create '" + directory_ / "f/sub" + "': "));
}

TEST_F(VolumeHandlerTest, FindsAVolumeFitWhenEverythingHolds) {
	TARNMountVolInfo record = AddVolume("v");
	EXPECT_TRUE(handler_.IsSuitable(&record, 100));
	EXPECT_FALSE(handler_.IsSuitable(&record, 101));
	record.flags = 0;
	EXPECT_FALSE(handler_.IsSuitable(&record, 0));
	record.flags = TARN_VOLUME_FLAG_DATA;
	record.healthy = 0;
	EXPECT_FALSE(handler_.IsSuitable(&record, 0));
	record.healthy = 1;
	record.writable = 0;
	EXPECT_FALSE(handler_.IsSuitable(&record, 0));
	record.writable = 1;
	platform_.volume_policy = [](const TARNMountVolInfo&) { return 0; };
	EXPECT_FALSE(handler_.IsSuitable(&record, 0));
}

TEST_F(VolumeHandlerTest, AsksThePolicyForDataVolumesOnlyAndBeforeTheRest) {
	int asked = 0;
	platform_.volume_policy = [&](const TARNMountVolInfo&) {
		++asked;
		return 1;
	};
	TARNMountVolInfo record = AddVolume("v", 0);
	record.healthy = 0;
	EXPECT_FALSE(handler_.IsSuitable(&record, 1));
	EXPECT_EQ(asked, 1);
	record.flags = 0;
	EXPECT_FALSE(handler_.IsSuitable(&record, 1));
	EXPECT_EQ(asked, 1);
}

TEST_F(VolumeHandlerTest, TakesANegativeNeedForTheReserveOfAllDatabases) {
	TARNMountVolInfo record = AddVolume("v", 100);
	EXPECT_TRUE(handler_.IsSuitable(&record, -1)); // Exactly twice 50.
	record.free_bytes = 99;
	EXPECT_FALSE(handler_.IsSuitable(&record, -1));
}

TEST_F(VolumeHandlerTest, RefusesReservesThatOverflow) {
	const TARNMountVolInfo record = AddVolume("v");
	Reserve(static_cast<unsigned long>(std::numeric_limits<long>::max()));
	try {
		static_cast<void>(handler_.IsSuitable(&record, -1));
		FAIL() << "nothing was thrown";
	} catch (const std::runtime_error& error) {
		EXPECT_STREQ(error.what(), kOverflow);
	}
	platform_.volumes_work = false;
	EXPECT_THROW(static_cast<void>(handler_.FindSuitableVolume("")), std::runtime_error); // Before it asks for volumes.
	EXPECT_TRUE(handler_.IsSuitable(&record, 0));                                         // Not asked for.
}

TEST_F(VolumeHandlerTest, FindsTheFirstFitVolumeInTheirOrder) {
	AddVolume("full", 99);
	AddVolume("b");
	AddVolume("a");
	EXPECT_EQ(handler_.FindSuitableVolume(""), directory_ / "b");
	EXPECT_EQ(handler_.FindSuitableVolume(directory_ / "b"), directory_ / "a");
	EXPECT_EQ(platform_.open_volume_lists, 0);
}

TEST_F(VolumeHandlerTest, NeverFindsTheExcludedVolume) {
	AddVolume("only");
	EXPECT_EQ(
	    MessageOf([&] { return handler_.FindSuitableVolume(directory_ / "only"); }), "Cannot find suitable volume.");
	EXPECT_EQ(handler_.FindSuitableVolume(directory_ / "onl"), directory_ / "only");
}

TEST_F(VolumeHandlerTest, SaysThatVolumesCannotBeListed) {
	platform_.volumes_work = false;
	platform_.error_code = 0xBEEF;
	EXPECT_EQ(MessageOf([&] { return handler_.FindSuitableVolume(""); }), "Failed to enum all volumes: beef");
}

TEST_F(VolumeHandlerTest, AdoptsAVolumeAtTheStart) {
	AddVolume("v");
	EXPECT_CALL(*config_, SetCurVolume(directory_ / "v")).WillOnce([&](const std::string&) {
		EXPECT_TRUE(fs::is_directory(Main("v"))); // Made before.
	});
	handler_.InitVolume();
	EXPECT_THAT(test::Lines(log_),
	    ElementsAre(Line{LOG_WARNING, kSource, "Autoupdate set the new volume at '" + directory_ / "v" + "'."}));
}

TEST_F(VolumeHandlerTest, KeepsTheVolumeInUseAtTheStart) {
	AddVolume("v");
	CurrentVolume("/volume9");
	EXPECT_CALL(*config_, SetCurVolume(_)).Times(0);
	handler_.InitVolume();
	EXPECT_THAT(test::Lines(log_), IsEmpty());
}

TEST_F(VolumeHandlerTest, StartsWithoutAVolume) {
	EXPECT_CALL(*config_, SetCurVolume(_)).Times(0);
	platform_.AddVolume("/full", 0);
	handler_.InitVolume();
	EXPECT_THAT(
	    test::Lines(log_), ElementsAre(Line{LOG_INFO, kSource, "Failed to init volume: Cannot find suitable volume."}));
}

TEST_F(VolumeHandlerTest, StartsWithInvalidReserves) {
	Reserve(std::numeric_limits<unsigned long>::max());
	handler_.InitVolume();
	EXPECT_THAT(test::Lines(log_),
	    ElementsAre(Line{LOG_ERR, kSource, std::string("Failed to init volume for the Autoupdate: ") + kOverflow}));
}

TEST_F(VolumeHandlerTest, PassesOnThatTheCurrentVolumeCannotBeRead) {
	ON_CALL(*config_, GetCurVolume()).WillByDefault(Throw(UpdateError("unreadable")));
	EXPECT_EQ(MessageOf([&] { handler_.InitVolume(); }), "unreadable");
	EXPECT_EQ(MessageOf([&] { handler_.MountVolumeEvent("/v"); }), "unreadable");
	EXPECT_EQ(MessageOf([&] { handler_.UnmountVolumeEvent("/v"); }), "unreadable");
}

TEST_F(VolumeHandlerTest, AdoptsAMountedVolumeWhenNoneIsInUse) {
	AddVolume("v");
	EXPECT_CALL(*config_, SetCurVolume(directory_ / "v"));
	handler_.MountVolumeEvent(directory_ / "v");
	EXPECT_TRUE(fs::is_directory(Main("v")));
	EXPECT_THAT(test::Lines(log_), IsEmpty());
}

TEST_F(VolumeHandlerTest, IgnoresAMountWhileAVolumeIsInUse) {
	AddVolume("v");
	CurrentVolume("/volume9");
	EXPECT_CALL(*config_, SetCurVolume(_)).Times(0);
	handler_.MountVolumeEvent(directory_ / "v");
	EXPECT_THAT(test::Lines(log_),
	    ElementsAre(Line{LOG_DEBUG, kSource, "Ignoring the uninteresting event of '" + directory_ / "v" + "'."}));
}

TEST_F(VolumeHandlerTest, NamesAMountedVolumeThatIsUnknown) {
	handler_.MountVolumeEvent("/unknown");
	EXPECT_THAT(test::Lines(log_), ElementsAre(Line{LOG_ERR, kSource, "Failed to get volume info for '/unknown'."}));
}

TEST_F(VolumeHandlerTest, LeavesAMountedVolumeThatIsNotFit) {
	AddVolume("v", 99);
	EXPECT_CALL(*config_, SetCurVolume(_)).Times(0);
	handler_.MountVolumeEvent(directory_ / "v");
	EXPECT_THAT(test::Lines(log_), IsEmpty());
	EXPECT_FALSE(fs::exists(Main("v")));
}

TEST_F(VolumeHandlerTest, SaysWhyItIgnoresAMountedVolume) {
	AddVolume("v");
	WriteFile(directory_ / "v/@database", "in the way");
	EXPECT_CALL(*config_, SetCurVolume(_)).Times(0);
	handler_.MountVolumeEvent(directory_ / "v");
	Reserve(std::numeric_limits<unsigned long>::max());
	handler_.MountVolumeEvent(directory_ / "v");
	const std::string beginning = "Ignoring the mount event of '" + directory_ / "v" + "': ";
	EXPECT_THAT(
	    test::Lines(log_), ElementsAre(testing::AllOf(testing::Field(&Line::priority, LOG_ERR),
	                                       testing::Field(&Line::text, StartsWith(beginning + "Failed to create '"))),
	                           Line{LOG_ERR, kSource, beginning + kOverflow}));
}

TEST_F(VolumeHandlerTest, PassesOnThatAMountedVolumeCannotBeRecorded) {
	AddVolume("v");
	EXPECT_CALL(*config_, SetCurVolume(_)).WillOnce(Throw(UpdateError("full")));
	EXPECT_EQ(MessageOf([&] { handler_.MountVolumeEvent(directory_ / "v"); }), "full");
}

TEST_F(VolumeHandlerTest, IgnoresTheUnmountOfAnotherVolume) {
	CurrentVolume("/volume9");
	EXPECT_CALL(*config_, SetCurVolume(_)).Times(0);
	handler_.UnmountVolumeEvent("/volume1");
	EXPECT_THAT(
	    test::Lines(log_), ElementsAre(Line{LOG_DEBUG, kSource, "Ignoring the uninteresting event of '/volume1'."}));
}

class UnmountTest : public VolumeHandlerTest {
protected:
	UnmountTest() {
		AddVolume("old");
		WriteFile(Main("old") + "/geo/f", "data");
		CurrentVolume(directory_ / "old");
	}
	void Unmount() const { handler_.UnmountVolumeEvent(directory_ / "old"); }
	Line Moving() const {
		return {LOG_WARNING, kSource, "Moving databases from " + Main("old") + " to " + Main("new")};
	}
};

TEST_F(UnmountTest, MovesTheDatabasesAndThenUsesTheOtherVolume) {
	AddVolume("new");
	const InSequence order;
	EXPECT_CALL(*config_, SetCurVolume("")).WillOnce([&](const std::string&) {
		EXPECT_TRUE(fs::exists(Main("old") + "/geo/f")); // Given up before anything moves.
	});
	EXPECT_CALL(*config_, SetCurVolume(directory_ / "new")).WillOnce([&](const std::string&) {
		EXPECT_TRUE(fs::exists(Main("new") + "/geo/f"));
	});
	Unmount();
	EXPECT_THAT(platform_.events, ElementsAre("/bin/mv " + Main("old") + " " + Main("new")));
	EXPECT_THAT(test::Lines(log_), ElementsAre(Moving()));
}

TEST_F(UnmountTest, AsksWhereTheDatabasesAreAndThenWhereTheyGo) {
	class Asked : public VolumeHandler {
	public:
		using VolumeHandler::VolumeHandler;
		std::string GetMainDirPath(const std::string& volume) const override {
			asked.push_back(volume);
			return VolumeHandler::GetMainDirPath(volume);
		}
		mutable std::vector<std::string> asked;
	};
	AddVolume("new");
	const Asked handler(config_);
	handler.UnmountVolumeEvent(directory_ / "old");
	EXPECT_THAT(handler.asked, ElementsAre(directory_ / "old", directory_ / "new"));
}

TEST_F(UnmountTest, LeavesThePlaceItselfToTheMove) {
	AddVolume("new");
	int moves = 0;
	platform_.exec = [&](const std::string&, const test::FakePlatform::Arguments& arguments) {
		++moves;
		EXPECT_FALSE(fs::exists(arguments.at(1))); // Or they would be moved into it.
		EXPECT_TRUE(fs::is_directory(fs::path(arguments.at(1)).parent_path()));
		return 0;
	};
	Unmount();
	fs::create_directories(Main("new"));
	Unmount();
	fs::create_directories(directory_ / "new/@database");
	WriteFile(Main("new"), "a file is replaced as well");
	Unmount();
	EXPECT_EQ(moves, 3);
}

TEST_F(UnmountTest, ReplacesAnEmptyDirectoryOnTheOtherVolume) {
	AddVolume("new");
	fs::create_directories(Main("new"));
	EXPECT_CALL(*config_, SetCurVolume("")).Times(1);
	EXPECT_CALL(*config_, SetCurVolume(directory_ / "new"));
	Unmount();
	EXPECT_TRUE(fs::exists(Main("new") + "/geo/f"));
}

TEST_F(UnmountTest, NeverOverwritesDatabasesOfTheOtherVolume) {
	AddVolume("new");
	WriteFile(Main("new") + "/poi/f", "theirs");
	EXPECT_CALL(*config_, SetCurVolume("")).Times(1);
	Unmount();
	EXPECT_THAT(platform_.events, IsEmpty());
	EXPECT_THAT(test::Lines(log_),
	    ElementsAre(Moving(),
	        testing::AllOf(testing::Field(&Line::priority, LOG_ERR),
	            testing::Field(&Line::text, StartsWith("Autoupdate failed to handle unmount volume event: ")))));
}

TEST_F(UnmountTest, DisablesUpdatesWithoutAnotherVolume) {
	EXPECT_CALL(*config_, SetCurVolume("")).Times(1);
	Unmount();
	EXPECT_TRUE(fs::exists(Main("old") + "/geo/f"));
	EXPECT_THAT(test::Lines(log_),
	    ElementsAre(Line{LOG_INFO, kSource,
	        "Autoupdate for DBs using volume is going to be disabled normally: Cannot find suitable volume."}));
}

TEST_F(UnmountTest, DisablesUpdatesWhenTheOtherVolumeHasNoPlace) {
	AddVolume("new");
	WriteFile(directory_ / "new/@database", "in the way");
	EXPECT_CALL(*config_, SetCurVolume("")).Times(1);
	Unmount();
	EXPECT_THAT(platform_.events, IsEmpty());
	const std::vector<Line> lines = test::Lines(log_);
	ASSERT_EQ(lines.size(), 2U);
	EXPECT_EQ(lines.front(), Moving());
	EXPECT_EQ(lines.back().priority, LOG_INFO);
	EXPECT_THAT(lines.back().text, StartsWith("Autoupdate for DBs using volume is going to be disabled normally: "
	                                          "Failed to create '" +
	                                          directory_ / "new/@database" + "': "));
}

TEST_F(UnmountTest, DisablesUpdatesWhenTheMoveFails) {
	AddVolume("new");
	platform_.exec = [](const std::string&, const test::FakePlatform::Arguments&) { return -1; };
	EXPECT_CALL(*config_, SetCurVolume("")).Times(1);
	Unmount();
	EXPECT_THAT(test::Lines(log_),
	    ElementsAre(Moving(),
	        Line{LOG_ERR, kSource, "Autoupdate failed to handle unmount volume event: Failed to move databases."}));
}

TEST_F(UnmountTest, TakesAnyMoveThatIsNotNegativeForASuccess) {
	AddVolume("new");
	platform_.exec = [](const std::string&, const test::FakePlatform::Arguments&) { return 1; };
	EXPECT_CALL(*config_, SetCurVolume("")).Times(1);
	EXPECT_CALL(*config_, SetCurVolume(directory_ / "new"));
	Unmount();
}

TEST_F(UnmountTest, LogsThatTheOtherVolumeCannotBeRecorded) {
	AddVolume("new");
	EXPECT_CALL(*config_, SetCurVolume("")).Times(1);
	EXPECT_CALL(*config_, SetCurVolume(directory_ / "new")).WillOnce(Throw(UpdateError("full")));
	Unmount();
	EXPECT_THAT(test::Lines(log_),
	    ElementsAre(Moving(),
	        Line{LOG_INFO, kSource, "Autoupdate for DBs using volume is going to be disabled normally: full"}));
}

TEST_F(UnmountTest, PassesOnThatGivingUpCannotBeRecorded) {
	EXPECT_CALL(*config_, SetCurVolume("")).WillOnce(Throw(UpdateError("full")));
	EXPECT_EQ(MessageOf([this] { Unmount(); }), "full");
}

/** Tells what was called, and goes on with answers of its own. */
class TellingHandler : public VolumeHandler {
public:
	using VolumeHandler::VolumeHandler;
	std::string FindSuitableVolume(std::string exclude) const override {
		calls.push_back("find " + exclude);
		return "/found";
	}
	std::string GetMainDirPath(const std::string& volume) const override {
		calls.push_back("main " + volume);
		return directory + volume + "/main";
	}
	void CreateDirectories(const std::string& path) const override {
		calls.push_back("create " + path.substr(directory.size()));
	}
	bool IsSuitable(const void* /*volumeInfo*/, long requiredBytes) const override {
		calls.push_back("suitable " + std::to_string(requiredBytes));
		return true;
	}

	mutable std::vector<std::string> calls;
	std::string directory;
};

TEST_F(VolumeHandlerTest, CallsItsOperationsThroughTheVirtualOnes) {
	TellingHandler handler(config_);
	handler.directory = directory_.Path();
	EXPECT_CALL(*config_, SetCurVolume("/found")).Times(2);
	handler.InitVolume();
	EXPECT_THAT(handler.calls, ElementsAre("find ", "main /found", "create /found/main"));
	handler.calls.clear();
	const std::string mounted = AddVolume("v").mount_path;
	EXPECT_CALL(*config_, SetCurVolume(mounted));
	handler.MountVolumeEvent(mounted);
	EXPECT_THAT(handler.calls, ElementsAre("main " + mounted, "suitable -1", "create " + mounted + "/main"));
	handler.calls.clear();
	CurrentVolume("/old");
	EXPECT_CALL(*config_, SetCurVolume(""));
	platform_.exec = [](const std::string&, const test::FakePlatform::Arguments&) { return 0; };
	handler.UnmountVolumeEvent("/old");
	EXPECT_THAT(handler.calls, testing::AllOf(testing::Contains("find /old"), testing::Contains("main /old"),
	                               testing::Contains("main /found"), testing::Contains("create /found")));
	handler.calls.clear();
	EXPECT_EQ(handler.VolumeHandler::FindSuitableVolume(""), mounted);
	EXPECT_THAT(handler.calls, ElementsAre("suitable 100")) << "the sum of all, computed once";
}

} // namespace
} // namespace tarn::dataupdate
