#include "dataupdate/update.h"
#include "dataupdate/volume_handler.h"
#include "fake_platform.h"
#include "library_test.h"
#include "live_objects.h"
#include "private_root.h"

#include <gmock/gmock.h>

#include <syslog.h>

#include <filesystem>
#include <memory>
#include <string>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

constexpr char kDefaults[] = "/usr/share/data_update/data_update.conf";
constexpr char kOverride[] = "/usr/tarn/etc/data_update/data_update.conf";

class InitServiceTest : public test::FixedPathsTest {
protected:
	void Configure(const std::string& volume) const {
		WriteFile(kDefaults, R"({"config": {"cur_volume": ")" + volume + R"("}})");
		WriteFile("/usr/share/data_update/databases.conf", R"({"geo": {"min_rsv_space_inbytes": 100}})");
	}

	test::TemporaryDirectory directory_;
	test::FakePlatform platform_;
	test::SyslogCapture log_;
};

TEST_F(InitServiceTest, RecordsTheFirstFitVolumeAndPreparesIt) {
	Configure("");
	platform_.AddVolume(directory_ / "small", 99);
	platform_.AddVolume(directory_ / "large", 100);
	InitService();
	EXPECT_EQ(IOUtils().ReadJson(kOverride)["config"]["cur_volume"], directory_ / "large");
	EXPECT_TRUE(fs::is_directory(directory_ / "large/@database/autoupdate"));
	EXPECT_THAT(
	    LinesOf(log_, "volume_handler.cpp"), ElementsAre(Line{LOG_WARNING, "volume_handler.cpp",
	                                             "Autoupdate set the new volume at '" + directory_ / "large" + "'."}));
}

TEST_F(InitServiceTest, KeepsTheVolumeInUse) {
	Configure("/volume9");
	platform_.AddVolume(directory_ / "large", 100);
	InitService();
	EXPECT_FALSE(fs::exists(kOverride));
	EXPECT_THAT(test::Lines(log_), IsEmpty());
}

TEST_F(InitServiceTest, PassesOnThatTheConfigurationCannotBeRead) {
	EXPECT_EQ(MessageOf([] { InitService(); }), std::string("File not exist: ") + kDefaults);
	EXPECT_THAT(test::Lines(log_), IsEmpty());
}

TEST_F(InitServiceTest, ReadsTheConfigurationAnewEachTime) {
	Configure("");
	InitService(); // No volume yet.
	EXPECT_FALSE(fs::exists(kOverride));
	platform_.AddVolume(directory_ / "large", 100);
	InitService();
	EXPECT_TRUE(fs::exists(kOverride));
}

TEST_F(InitServiceTest, KeepsNothingInMemory) {
	Configure("/volume9");
	const auto settle_by_hand = [] {
		const auto config = std::make_shared<Config>(std::make_shared<IOUtils>());
		VolumeHandler(std::make_shared<ServiceConfig>(config)).InitVolume();
	};
	// What is made once and kept by libraries is made here.
	for (int i = 0; i < 3; ++i) {
		settle_by_hand();
	}
	const long before = test::LiveObjects();
	InitService();
	EXPECT_EQ(test::LiveObjects(), before);
}

} // namespace
} // namespace tarn::dataupdate
