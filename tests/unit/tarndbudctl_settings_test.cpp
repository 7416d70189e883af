#include "dataupdate/utils.h"
#include "expect_error.h"
#include "host/library/failure.h"
#include "host/library/settings.h"
#include "private_root.h"
#include "syslog_capture.h"
#include "temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <syslog.h>

#include <filesystem>
#include <string>
#include <vector>

namespace tarn::ctl {
namespace {

using test::WriteFile;
using testing::HasSubstr;

constexpr char kService[] = "/usr/tarn/etc/data_update/data_update.conf";
constexpr char kDatabases[] = "/usr/tarn/etc/data_update/databases.conf";

constexpr char kDownloads[] = "/usr/tarn/etc/downloads.conf";
constexpr char kVolumes[] = "/usr/tarn/etc/volumes.conf";

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

/** The sentences of all that is unknown. */
std::vector<std::string> UnknownOnes() {
	std::vector<std::string> sentences;
	for (const UnknownSetting& unknown : FindUnknownSettings()) {
		sentences.push_back(Describe(unknown));
	}
	return sentences;
}

using UnknownSettingsTest = SettingsTest;

TEST_F(UnknownSettingsTest, AreNamedWithFileLineAndWhatIsNear) {
	WriteFile(kService,
	    "{\n\t\"config\":\n\t{\n\t\t\"db_ver\": \"1\",\n\t\t\"db_netlock\":\n\"h:1\"\n\t},\n\t\"confg\": {}\n}\n");
	WriteFile(kDatabases, "{\"geo\": {},\n\"zip\": {\"auto_update\": true,\n \"\\u0061bc\": 1}}\n");
	WriteFile(kDownloads, "# deadlin 3\n\ndeadlin 5\n");
	WriteFile(kVolumes, "pattern /volume*\nfoo /x\n");
	EXPECT_THAT(UnknownOnes(),
	    testing::ElementsAre(
	        std::string(kService) + ":8: there is no section \"confg\", so it has no effect; did you mean \"config\"?",
	        std::string(kService) +
	            ":5: there is no setting \"db_netlock\", so it has no effect; did you mean \"db_netloc\"?",
	        std::string(kDatabases) + ":3: there is no setting \"abc\", so it has no effect",
	        std::string(kDownloads) +
	            ":3: there is no setting \"deadlin\", so it has no effect; did you mean \"deadline\"?",
	        std::string(kVolumes) + ":2: there is no setting \"foo\", so it has no effect"));
	const test::SyslogCapture log;
	LogUnknownSettings();
	EXPECT_EQ(log.Count(LOG_WARNING, {"so it has no effect"}), 5U);
}

TEST_F(UnknownSettingsTest, AreNoneWhereEverySettingIsKnownOrNothingCanBeRead) {
	EXPECT_THAT(UnknownOnes(), testing::IsEmpty()) << "no file is there";
	WriteFile(kService,
	    R"({"config":{"cur_volume":"","db_netloc":"h:1","db_ver":"1","digest_threads":2,"download_scheme":"http","scheduled_full_packages":"20M"}})");
	WriteFile(kDatabases, R"({"geo":{"format_version":"1","install_dest":"%VOLUME%","auto_update":false,
		"min_rsv_space_inbytes":1},"zip":{}})");
	WriteFile(kDownloads, "deadline 1\nlowest_rate 1\npatience 1\n");
	WriteFile(kVolumes, "pattern /a\ndirectory /b\nexclude /c\n");
	EXPECT_THAT(UnknownOnes(), testing::IsEmpty());
	for (const char* content : {"", "{", "[]", R"({"config":7})", "null"}) {
		WriteFile(kService, content);
		EXPECT_THAT(UnknownOnes(), testing::IsEmpty()) << content;
	}
	WriteFile(kService, std::string(100000, '['));
	EXPECT_THAT(UnknownOnes(), testing::IsEmpty()) << "nested too deeply";
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

constexpr char kCannotBeWritten[] = "it holds text that is no UTF-8, or a name with a zero byte";

class WrongSettingsTest : public SettingsTest, public testing::WithParamInterface<Case> {};

TEST_P(WrongSettingsTest, AreNamed) {
	WriteFile(GetParam().path, GetParam().content);
	EXPECT_THAT(Complaint(), HasSubstr(std::string(GetParam().path) + " cannot be used: " + GetParam().reason + ";"));
}

INSTANTIATE_TEST_SUITE_P(Values, WrongSettingsTest,
    testing::Values(Case{kService, "null", "it must hold an object"}, Case{kDatabases, "[]", "it must hold an object"},
        Case{kService, R"({"config":"x"})", "'config' must be an object"},
        Case{kService, "{\"config\":{\"cur_volume\":\"/volume\xe9\"}}", kCannotBeWritten},
        Case{kDatabases, R"({"x\udc00":{}})", kCannotBeWritten},
        Case{kDatabases, R"({"x\u0000y":{}})", kCannotBeWritten},
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
