#include "dataupdate/utils.h"
#include "expect_error.h"
#include "host/library/failure.h"
#include "host/library/preparation.h"
#include "private_root.h"
#include "temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace tarn::ctl {
namespace {

using test::WriteFile;
using testing::HasSubstr;

constexpr char kService[] = "/usr/tarn/etc/data_update/data_update.conf";
constexpr char kDatabases[] = "/usr/tarn/etc/data_update/databases.conf";

class SettingsTest : public test::FixedPathsTest {
protected:
	/** What is wrong with the settings, or nothing. */
	static std::string Complaint() {
		try {
			RequireUsableSettings(dataupdate::IOUtils());
		} catch (const CommandError& error) {
			EXPECT_EQ(error.Code(), kFailed);
			return error.what();
		}
		return "";
	}
};

TEST_F(SettingsTest, MayBeMissing) {
	EXPECT_EQ(Complaint(), "");
}

TEST_F(SettingsTest, AreUsableWithEveryKeyOfTheRightType) {
	WriteFile(kService,
	    R"({"config":{"cur_volume":"","db_netloc":"h:1","db_ver":"1","download_scheme":"http","scheduled_full_packages":"20M","more":7}})");
	WriteFile(kDatabases, R"({"geo":{"format_version":"1","install_dest":"%VOLUME%","auto_update":false,
		"min_rsv_space_inbytes":4294967295},"zip":{}})");
	EXPECT_EQ(Complaint(), "");
}

TEST_F(SettingsTest, AreRefusedWhenTheFileIsNoJson) {
	for (const char* path : {kService, kDatabases}) {
		WriteFile(path, R"({"geo":{"auto_update":true,})");
		EXPECT_EQ(Complaint(), std::string("The settings in ") + path +
		                           " cannot be used: it is no JSON, or cannot be read; correct or remove that file");
		std::filesystem::remove(path);
	}
}

struct Case {
	const char* path;
	const char* content;
	const char* reason;
};

class WrongSettingsTest : public SettingsTest, public testing::WithParamInterface<Case> {};

TEST_P(WrongSettingsTest, AreNamed) {
	WriteFile(GetParam().path, GetParam().content);
	EXPECT_THAT(Complaint(), HasSubstr(std::string(GetParam().path) + " cannot be used: " + GetParam().reason + ";"));
}

INSTANTIATE_TEST_SUITE_P(Values, WrongSettingsTest,
    testing::Values(Case{kService, "null", "it must hold an object"}, Case{kDatabases, "[]", "it must hold an object"},
        Case{kService, R"({"config":"x"})", "'config' must be an object"},
        Case{kService, R"({"config":{"digest_threads":"2"}})",
            "'digest_threads' of 'config' must be a whole number from 0 to 4294967295"},
        Case{kService, R"({"config":{"scheduled_full_packages":"sometimes"}})",
            "'scheduled_full_packages' of 'config' must be \"always\", \"diffs only\" or a number of bytes such as "
            "\"200M\", in quotation marks"},
        Case{kService, R"({"config":{"db_ver":1}})", "'db_ver' of 'config' must be a string in quotation marks"},
        Case{kDatabases, R"({"geo":{"auto_update":"false"}})",
            "'auto_update' of 'geo' must be true or false, without quotation marks"},
        Case{kDatabases, R"({"geo":{"format_version":1}})",
            "'format_version' of 'geo' must be a string in quotation marks"},
        Case{kDatabases, R"({"geo":{"min_rsv_space_inbytes":4294967296}})",
            "'min_rsv_space_inbytes' of 'geo' must be a whole number from 0 to 4294967295"},
        Case{kDatabases, R"({"geo":{"min_rsv_space_inbytes":-1}})",
            "'min_rsv_space_inbytes' of 'geo' must be a whole number from 0 to 4294967295"}));

} // namespace
} // namespace tarn::ctl
