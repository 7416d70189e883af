#include "expect_error.h"
#include "host/commands/commands.h"
#include "host/library/services.h"
#include "private_root.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace tarn::ctl {
namespace {

using test::WriteFile;

constexpr char kOverride[] = "/usr/tarn/etc/data_update/databases.conf";

class ScheduleCommandTest : public test::FixedPathsTest {
protected:
	void SetUp() override {
		test::FixedPathsTest::SetUp();
		if (IsSkipped()) {
			return;
		}
		WriteFile("/usr/share/data_update/data_update.conf", R"({"config":{"cur_volume":"/volume1"}})");
		WriteFile("/usr/share/data_update/databases.conf",
		    R"({"geo":{"format_version":"7"},"zip":{"auto_update":false},"web":{}})");
	}
	ExitCode Run(const std::string& id, const std::string& state) {
		Options options;
		options.id = id;
		options.state = state;
		return kScheduleCommand.run(services_, options);
	}
	bool IsScheduled(const std::string& id) { return services_.config->GetDatabaseConfig(id)->GetScheduled(); }

	std::ostringstream out_;
	std::ostringstream err_;
	Terminal terminal_{out_, err_, false};
	Services services_ = MakeServices(terminal_);
};

TEST_F(ScheduleCommandTest, SetsTheStateOfOneDatabase) {
	EXPECT_EQ(Run("geo", "off"), kDone);
	EXPECT_FALSE(IsScheduled("geo"));
	EXPECT_EQ(Run("zip", "on"), kDone);
	EXPECT_TRUE(IsScheduled("zip"));
	EXPECT_EQ(out_.str(), "geo: not scheduled\nzip: scheduled\n");
}

TEST_F(ScheduleCommandTest, ShowsNobodyHalfOfTheSettings) {
	Run("geo", "off");
	const std::string old = test::ReadFile(kOverride);
	std::ifstream reader(kOverride);
	Run("geo", "on");
	EXPECT_EQ(std::string(std::istreambuf_iterator<char>(reader), {}), old);
	EXPECT_NE(test::ReadFile(kOverride), old);
}

TEST_F(ScheduleCommandTest, KeepsALinkThatStandsForTheSettings) {
	const std::string target = "/usr/tarn/etc/data_update/mine.conf";
	WriteFile(target, R"({"geo":{}})");
	std::filesystem::create_symlink(target, kOverride);
	Run("geo", "off");
	EXPECT_TRUE(std::filesystem::is_symlink(kOverride));
	EXPECT_FALSE(IsScheduled("geo"));
}

TEST_F(ScheduleCommandTest, KeepsTheOtherDatabasesAndTheirSettings) {
	Run("geo", "off");
	EXPECT_EQ(services_.config->GetDatabaseIDs(), (std::vector<std::string>{"geo", "web", "zip"}));
	EXPECT_EQ(services_.config->GetDatabaseConfig("geo")->GetFormatVersion(), "7");
	EXPECT_FALSE(IsScheduled("zip"));
	EXPECT_TRUE(IsScheduled("web"));
}

TEST_F(ScheduleCommandTest, KeepsAListThatIsTheAdministratorsOwn) {
	WriteFile(kOverride, R"({"geo":{"auto_update":true}})");
	Run("geo", "off");
	EXPECT_EQ(services_.config->GetDatabaseIDs(), std::vector<std::string>{"geo"});
}

TEST_F(ScheduleCommandTest, SaysWhatCannotBeWritten) {
	WriteFile(std::filesystem::path(kOverride).parent_path(), "a file in the directory's place");
	EXPECT_EQ(test::MessageOf([&] { Run("geo", "off"); }), std::string("Fail to create parent folder: ") + kOverride);
}

TEST_F(ScheduleCommandTest, RefusesAnUnknownDatabaseAndWritesNothing) {
	EXPECT_EQ(test::MessageOf([&] { Run("nope", "on"); }), "Project nope not supported");
	EXPECT_FALSE(std::filesystem::exists(kOverride));
}

} // namespace
} // namespace tarn::ctl
