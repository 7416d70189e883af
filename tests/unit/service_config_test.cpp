#include "dataupdate/service_config.h"
#include "library_test.h"
#include "mocks.h"
#include "private_root.h"

#include <memory>
#include <stdexcept>
#include <string>

namespace tarn::dataupdate {
namespace {

constexpr char kServiceDefaults[] = "/usr/share/data_update/data_update.conf";
constexpr char kServiceOverride[] = "/usr/tarn/etc/data_update/data_update.conf";
constexpr char kDatabaseDefaults[] = "/usr/share/data_update/databases.conf";
constexpr char kDatabaseOverride[] = "/usr/tarn/etc/data_update/databases.conf";

class DatabaseConfigTest : public testing::Test {
protected:
	DatabaseConfigTest() { EXPECT_CALL(*store_, Init(kDatabaseDefaults, kDatabaseOverride)); }

	DatabaseConfig View(const std::string& volume = "/volume2") const { return {"geo", volume, store_}; }
	void InstallDest(const std::string& value) const {
		EXPECT_CALL(*store_, Get("geo", "install_dest")).WillRepeatedly(Return(value));
	}

	std::shared_ptr<StrictMock<test::MockConfig>> store_ = std::make_shared<StrictMock<test::MockConfig>>();
};

TEST_F(DatabaseConfigTest, ReadsItsSection) {
	EXPECT_CALL(*store_, Get("geo", "format_version")).WillOnce(Return("3"));
	EXPECT_CALL(*store_, GetAsUInt64("geo", "min_rsv_space_inbytes")).WillOnce(Return(9UL));
	EXPECT_CALL(*store_, GetAsBool("geo", "auto_update")).WillOnce(Return(false));
	const DatabaseConfig view = View();
	EXPECT_EQ(view.GetFormatVersion(), "3");
	EXPECT_EQ(view.GetMinReservedSpaceInbytes(), 9U);
	EXPECT_FALSE(view.GetScheduled());
}

TEST_F(DatabaseConfigTest, IsScheduledAndReservesNothingWithoutKeys) {
	EXPECT_CALL(*store_, GetAsUInt64("geo", "min_rsv_space_inbytes")).WillOnce(Throw(UpdateError("absent")));
	EXPECT_CALL(*store_, GetAsBool("geo", "auto_update")).WillOnce(Throw(UpdateError("absent")));
	const DatabaseConfig view = View();
	EXPECT_EQ(view.GetMinReservedSpaceInbytes(), 0U);
	EXPECT_TRUE(view.GetScheduled());
}

TEST_F(DatabaseConfigTest, TurnsOnlyItsOwnErrorsIntoValues) {
	EXPECT_CALL(*store_, GetAsUInt64("geo", "min_rsv_space_inbytes")).WillOnce(Throw(std::runtime_error("other")));
	EXPECT_CALL(*store_, GetAsBool("geo", "auto_update")).WillOnce(Throw(std::runtime_error("other")));
	EXPECT_CALL(*store_, Get("geo", "format_version")).WillOnce(Throw(UpdateError("no format")));
	const DatabaseConfig view = View();
	EXPECT_THROW(view.GetMinReservedSpaceInbytes(), std::runtime_error);
	EXPECT_THROW(view.GetScheduled(), std::runtime_error);
	EXPECT_EQ(MessageOf([&] { view.GetFormatVersion(); }), "no format");
}

TEST_F(DatabaseConfigTest, StoresTheSchedule) {
	EXPECT_CALL(*store_, Set("geo", "auto_update", testing::Matcher<bool>(true)));
	EXPECT_CALL(*store_, Set("geo", "auto_update", testing::Matcher<bool>(false))).WillOnce(Throw(UpdateError("full")));
	const DatabaseConfig view = View();
	view.SetScheduled(true);
	EXPECT_EQ(MessageOf([&] { view.SetScheduled(false); }), "full");
}

TEST_F(DatabaseConfigTest, LiesOnTheVolume) {
	InstallDest("%VOLUME%");
	EXPECT_EQ(View().GetInstallPrefix(), "/volume2/@database/autoupdate/geo");
	EXPECT_CALL(*store_, Init(kDatabaseDefaults, kDatabaseOverride)).Times(2);
	EXPECT_EQ(View().GetRootDirectory(), "/volume2");
	EXPECT_EQ(View("").GetInstallPrefix(), "/@database/autoupdate/geo");
}

TEST_F(DatabaseConfigTest, LiesOnTheRootFileSystem) {
	InstallDest("%ROOTFS%");
	const DatabaseConfig view = View();
	EXPECT_EQ(view.GetInstallPrefix(), "/var/db/geo");
	EXPECT_EQ(view.GetRootDirectory(), "/");
}

TEST_F(DatabaseConfigTest, RefusesAnyOtherDestination) {
	const DatabaseConfig view = View();
	for (const std::string value : {"%volume%", "x", "", "/volume1"}) {
		InstallDest(value);
		const std::string message = "Invalid value '" + value + "' for '%s/@database/autoupdate' field";
		EXPECT_EQ(MessageOf([&] { view.GetInstallPrefix(); }), message);
		EXPECT_EQ(MessageOf([&] { view.GetRootDirectory(); }), message);
	}
}

TEST_F(DatabaseConfigTest, PassesOnThatTheDestinationIsMissing) {
	EXPECT_CALL(*store_, Get("geo", "install_dest")).Times(2).WillRepeatedly(Throw(UpdateError("absent")));
	const DatabaseConfig view = View();
	EXPECT_EQ(MessageOf([&] { view.GetInstallPrefix(); }), "absent");
	EXPECT_EQ(MessageOf([&] { view.GetRootDirectory(); }), "absent");
}

TEST(ServiceConfigKeysTest, ReadsAndWritesTheConfigSection) {
	const auto store = std::make_shared<StrictMock<test::MockConfig>>();
	EXPECT_CALL(*store, Init(kServiceDefaults, kServiceOverride));
	const ServiceConfig config(store);
	EXPECT_CALL(*store, Get("config", "download_scheme")).WillOnce(Return("https"));
	EXPECT_CALL(*store, Get("config", "db_netloc")).WillOnce(Return("host:1"));
	EXPECT_CALL(*store, Get("config", "db_ver")).WillOnce(Return("v3"));
	EXPECT_CALL(*store, Get("config", "cur_volume")).WillOnce(Return("/volume1")).WillOnce(Throw(UpdateError("none")));
	EXPECT_CALL(*store, Set("config", "cur_volume", testing::Matcher<const std::string&>("/volume2")));
	EXPECT_EQ(config.GetDownloadScheme(), "https");
	EXPECT_EQ(config.GetDBInfoDomainName(), "host:1");
	EXPECT_EQ(config.GetDBInfoVersion(), "v3");
	EXPECT_EQ(config.GetCurVolume(), "/volume1");
	EXPECT_EQ(MessageOf([&] { config.GetCurVolume(); }), "none");
	config.SetCurVolume("/volume2");
}

class ServiceConfigTest : public test::FixedPathsTest {
protected:
	ServiceConfig config_{std::make_shared<Config>(std::make_shared<IOUtils>())};
};

TEST_F(ServiceConfigTest, ListsTheDatabasesOfTheOverrideAlone) {
	WriteFile(kDatabaseDefaults, R"({"b": {}, "a": {}})");
	EXPECT_THAT(config_.GetDatabaseIDs(), ElementsAre("a", "b"));
	WriteFile(kDatabaseOverride, R"({"c": {}})");
	EXPECT_THAT(config_.GetDatabaseIDs(), ElementsAre("c"));
}

TEST_F(ServiceConfigTest, SupportsExactlyTheListedIds) {
	WriteFile(kDatabaseDefaults, R"({"geo": {}})");
	EXPECT_NO_THROW(config_.CheckSupported("geo"));
	EXPECT_EQ(MessageOf([&] { config_.CheckSupported("Geo"); }), "Project Geo not supported");
	WriteFile(kDatabaseOverride, R"({"other": {}})");
	EXPECT_EQ(MessageOf([&] { config_.CheckSupported("geo"); }), "Project geo not supported");
}

TEST_F(ServiceConfigTest, ChecksIdsThroughTheVirtualList) {
	class Double : public ServiceConfig {
	public:
		using ServiceConfig::ServiceConfig;
		std::vector<std::string> GetDatabaseIDs() const override { return {"virtual"}; }
	};
	const Double config(std::make_shared<NiceMock<test::MockConfig>>());
	EXPECT_NO_THROW(config.CheckSupported("virtual"));
}

TEST_F(ServiceConfigTest, RemembersTheVolumeOverAnyDefault) {
	WriteFile(kServiceDefaults, R"({"config": {"cur_volume": "/volume1"}})");
	EXPECT_EQ(config_.GetCurVolume(), "/volume1");
	config_.SetCurVolume("/volume2");
	EXPECT_EQ(config_.GetCurVolume(), "/volume2");
}

TEST_F(ServiceConfigTest, FixesAViewsVolumeWhenItIsMade) {
	WriteFile(kServiceDefaults, R"({"config": {"cur_volume": "/volume1"}})");
	WriteFile(kDatabaseDefaults, R"({"geo": {"install_dest": "%VOLUME%"}})");
	const std::shared_ptr<DatabaseConfig> before = config_.GetDatabaseConfig("geo");
	config_.SetCurVolume("/volume2");
	EXPECT_EQ(before->GetRootDirectory(), "/volume1");
	EXPECT_EQ(config_.GetDatabaseConfig("geo")->GetRootDirectory(), "/volume2");
}

TEST_F(ServiceConfigTest, MakesAViewOfAnyIdButNotWithoutAVolumeSetting) {
	WriteFile(kServiceDefaults, R"({"config": {"cur_volume": ""}})");
	EXPECT_NE(config_.GetDatabaseConfig("unknown"), nullptr);
	WriteFile(kServiceDefaults, "{}");
	EXPECT_EQ(MessageOf([&] { config_.GetDatabaseConfig("geo"); }), "section-key: 'config'-'cur_volume' not found");
}

TEST_F(ServiceConfigTest, SkipsAScheduleOfTheWrongType) {
	WriteFile(kServiceDefaults, R"({"config": {"cur_volume": ""}})");
	WriteFile(
	    kDatabaseDefaults, R"({"none": {}, "off": {"auto_update": false}, "low": {"min_rsv_space_inbytes": -5}})");
	EXPECT_TRUE(config_.GetDatabaseConfig("none")->GetScheduled());
	EXPECT_EQ(config_.GetDatabaseConfig("none")->GetMinReservedSpaceInbytes(), 0U);
	EXPECT_EQ(config_.GetDatabaseConfig("low")->GetMinReservedSpaceInbytes(), 0U);
	WriteFile(kDatabaseOverride, R"({"none": {"auto_update": "false"}, "off": {"auto_update": "true"}})");
	EXPECT_TRUE(config_.GetDatabaseConfig("none")->GetScheduled());
	EXPECT_FALSE(config_.GetDatabaseConfig("off")->GetScheduled());
}

TEST_F(ServiceConfigTest, StoresASchedule) {
	WriteFile(kServiceDefaults, R"({"config": {"cur_volume": ""}})");
	WriteFile(kDatabaseDefaults, R"({"geo": {"auto_update": true}})");
	config_.GetDatabaseConfig("geo")->SetScheduled(false);
	EXPECT_FALSE(config_.GetDatabaseConfig("geo")->GetScheduled());
}

} // namespace
} // namespace tarn::dataupdate
