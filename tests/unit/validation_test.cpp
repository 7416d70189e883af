#include "dataupdate/interruption.h"
#include "dataupdate/updater.h"
#include "fake_packages.h"
#include "fake_platform.h"
#include "fake_system.h"
#include "library_test.h"
#include "private_root.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

using testing::Contains;

/** Updates over a platform with a hook that checks. */
class ValidationTest : public test::FixedPathsTest {
protected:
	ValidationTest() {
		platform_.has_checks = true;
		platform_.package_files = {{"a", "abc"}, {"sub/b", "b"}};
		platform_.on_plugin_check = [this] {
			seen_installed_ = ReadFile(Installed("a"));
			seen_changes_ = ReadFile(Told("CHANGES"));
			const std::string tree = Told("DIRECTORY");
			for (const auto& entry : fs::recursive_directory_iterator(tree)) {
				if (entry.is_regular_file()) {
					seen_files_.push_back(fs::relative(entry.path(), tree).string());
				}
			}
			std::sort(seen_files_.begin(), seen_files_.end());
		};
		WriteFile(Installed("a"), "old");
	}

	std::string Installed(const std::string& name) const { return directory_ / ("volume/db/geo/" + name); }
	std::string Told(const std::string& key) const {
		const std::string beginning = "hook set " + key + "=";
		for (const std::string& event : platform_.events) {
			if (event.compare(0, beginning.size(), beginning) == 0) {
				return event.substr(beginning.size());
			}
		}
		ADD_FAILURE() << key << " is not told";
		return "";
	}
	void Update(const std::map<int, DiffInfo>& diffs = {}) const {
		DatabaseStatus installed;
		installed.data_version = 3;
		static_cast<void>(Updater().Update("geo", installed, RemoteInfo(4, 1, false, "http://h/full"), diffs,
		    directory_ / "volume", directory_ / "volume/db/geo", directory_ / ""));
	}
	bool HasLeftovers() const {
		const fs::path area = directory_ / "volume/@tmp/data_update";
		return fs::exists(area) && !fs::is_empty(area);
	}

	test::TemporaryDirectory directory_;
	test::FakePlatform platform_;
	test::FakeSystem system_;
	test::SyslogCapture log_;
	std::string seen_installed_;
	std::string seen_changes_;
	std::vector<std::string> seen_files_;
};

TEST_F(ValidationTest, ShowsTheTreeOfAFullPackageBeforeAnythingIsReplaced) {
	Update();
	EXPECT_EQ(seen_installed_, "old");
	EXPECT_THAT(seen_files_, ElementsAre("a", "sub/b"));
	EXPECT_EQ(seen_changes_, std::string("put=a\0put=sub/b\0", 16));
	EXPECT_EQ(Told("KIND"), "full");
	EXPECT_EQ(Told("VERSION"), "4");
	EXPECT_EQ(Told("INSTALLED_VERSION"), "3");
	EXPECT_EQ(Told("INSTALL_DIRECTORY"), directory_ / "volume/db/geo");
	EXPECT_EQ(ReadFile(Installed("a")), "abc");
	EXPECT_FALSE(HasLeftovers());
}

TEST_F(ValidationTest, ComesBeforeTheHooksOfTheChange) {
	Update();
	const auto check = std::find(platform_.events.begin(), platform_.events.end(), "hook check");
	const auto pre = std::find(platform_.events.begin(), platform_.events.end(), "hook action 4");
	EXPECT_LT(check - platform_.events.begin(), pre - platform_.events.begin());
	EXPECT_EQ(platform_.CountEvents("hook exit"), 2U);
}

TEST_F(ValidationTest, ThrowsTheRefusalWithNothingReplacedAndNoOtherHookRun) {
	platform_.check_result = TLIB_PLUGIN_REFUSED;
	platform_.check_reason = "'/hooks/10': three rules are bad";
	EXPECT_EQ(MessageOf([this] { Update(); }), "Refused by hook '/hooks/10': three rules are bad");
	EXPECT_EQ(ReadFile(Installed("a")), "old");
	EXPECT_EQ(platform_.CountEvents("hook action"), 0U);
	EXPECT_EQ(platform_.CountEvents("hook exit"), 1U);
	EXPECT_FALSE(HasLeftovers());
}

TEST_F(ValidationTest, TellsARefusalFromNoVerdict) {
	platform_.check_result = TLIB_PLUGIN_NO_VERDICT;
	platform_.check_reason = "'/hooks/10': it was killed";
	EXPECT_EQ(MessageOf([this] { Update(); }), "No verdict by hook '/hooks/10': it was killed");
	EXPECT_EQ(ReadFile(Installed("a")), "old");
}

TEST_F(ValidationTest, AsksForAFixWithoutAnInstalledVersion) {
	platform_.check_result = TLIB_PLUGIN_REFUSED;
	platform_.check_reason = "'/hooks/10': no";
	const Fixer fixer("geo", RemoteInfo(4, 1, false, "http://h/full"), directory_ / "volume",
	    directory_ / "volume/db/geo", directory_ / "");
	EXPECT_EQ(MessageOf([&] { static_cast<void>(fixer.Fix()); }), "Refused by hook '/hooks/10': no");
	EXPECT_EQ(Told("INSTALLED_VERSION"), "");
	EXPECT_EQ(ReadFile(Installed("a")), "old");
}

TEST_F(ValidationTest, EndsEarlyAsAskedWithoutAVerdict) {
	platform_.on_plugin_check = [] { RequestInterruption(); };
	EXPECT_EQ(MessageOf([this] { Update(); }), "Interrupted");
	ForgetInterruption();
	EXPECT_EQ(ReadFile(Installed("a")), "old");
}

TEST_F(ValidationTest, IsNotHeardOfWithoutSuchHooks) {
	platform_.has_checks = false;
	Update();
	EXPECT_EQ(platform_.CountEvents("hook init"), 1U);
	EXPECT_THAT(LinesOf(log_, "validation.cpp"), IsEmpty());
	for (const std::string& event : platform_.events) {
		EXPECT_THAT(event, testing::Not(HasSubstr("_check")));
	}
}

TEST_F(ValidationTest, ShowsTheChangedFilesOfADiffUnderTheirNames) {
	test::FakePackages packages(platform_);
	packages.by_link["http://h/4"] = {
	    {"patch_infos.json",
	        R"({"gone": {"operation": "delete"}, "sub/new.x": {"operation": "create", "input_file": "in"}})"},
	    {"in", "new"}};
	WriteFile(Installed("gone"), "old");
	Update({{4, DiffInfo("http://h/4", 1)}});
	EXPECT_THAT(seen_files_, ElementsAre("sub/new.x"));
	EXPECT_EQ(seen_changes_, std::string("delete=gone\0put=sub/new.x\0", 26));
	EXPECT_EQ(Told("KIND"), "diff");
	EXPECT_EQ(ReadFile(Installed("sub/new.x")), "new");
	struct stat status {};
	ASSERT_EQ(stat(Installed("sub/new.x").c_str(), &status), 0);
	EXPECT_EQ(status.st_nlink, 1U);
	EXPECT_FALSE(fs::exists(Installed("gone")));
}

} // namespace
} // namespace tarn::dataupdate
