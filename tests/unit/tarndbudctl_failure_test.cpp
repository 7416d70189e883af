#include "dataupdate/messages.h"
#include "dataupdate/space_shortage.h"
#include "dataupdate/update_error.h"
#include "host/library/download_failure.h"
#include "host/library/failure.h"
#include "mocks.h"

#include <tarncore/tarncore.h>

#include <boost/filesystem/exception.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>

namespace tarn::ctl {
namespace {

namespace messages = dataupdate::messages;

using dataupdate::UpdateError;
using testing::EndsWith;
using testing::HasSubstr;
using testing::NiceMock;
using testing::Not;
using testing::Return;
using testing::StartsWith;
using testing::Throw;

/** A message as the library makes it: each kind begins with the constant that the library throws. */
struct Case {
	std::string message;
	Category category;
	ExitCode code;
	const char* hint;
};

class FailureTableTest : public testing::TestWithParam<Case> {};

TEST_P(FailureTableTest, SaysWhatFailedAndWhatToDo) {
	const Failure failure = ExplainMessage(GetParam().message, 0);
	EXPECT_EQ(failure.category, GetParam().category);
	EXPECT_EQ(failure.code, GetParam().code);
	EXPECT_THAT(failure.sentence, HasSubstr(GetParam().hint));
	EXPECT_THAT(failure.sentence, EndsWith("."));
	EXPECT_THAT(failure.sentence, Not(EndsWith("..")));
}

std::string Message(const char* beginning, const std::string& rest = "", const char* wrapper = "") {
	return std::string(wrapper) + beginning + rest;
}

const std::string kLock = "/run/data_update/using_geo.lock";

INSTANTIATE_TEST_SUITE_P(Messages, FailureTableTest,
    testing::Values(Case{Message(messages::kUnknownProject, "x not supported"), Category::kUnknownDatabase,
                        kUnsupported, "x not supported; the configured"},
        Case{
            Message(messages::kCannotLock, kLock), Category::kLocked, kLocked, "using_geo.lock; another process holds"},
        Case{Message(messages::kCannotLock, kLock, messages::kFullUpdate), Category::kLocked, kLocked, "a reader"},
        Case{Message(messages::kCannotLock, kLock, messages::kDiffUpdate), Category::kLocked, kLocked, "a reader"},
        Case{Message(messages::kCannotLock, kLock, messages::kForceInstall), Category::kLocked, kLocked, "a reader"},
        Case{Message(messages::kFullUpdate, "x"), Category::kFilesMayBeAMixture, kFailed, "update again"},
        Case{Message(messages::kDiffUpdate, "x"), Category::kFilesMayBeAMixture, kFailed, "update again"},
        Case{Message(messages::kForceInstall, "x"), Category::kFilesMayBeAMixture, kFailed, "force it again"},
        Case{Message(messages::kCannotOpenLock, kLock), Category::kLockUnusable, kFailed, "as root"},
        Case{Message(messages::kCannotDownload, "http://x/"), Category::kDownload, kFailed, "check the network"},
        Case{Message(messages::kLowSpace), Category::kLowSpace, kFailed, "; free some space"},
        Case{Message(messages::kNoSuitableVolume), Category::kNoSuitableVolume, kFailed, "; mount a writable volume"},
        Case{Message(messages::kCannotListVolumes, "13"), Category::kVolumesUnknown, kFailed, "volumes.conf"},
        Case{Message(messages::kReserveOverflow), Category::kWrongConfiguration, kFailed, "min_rsv_space_inbytes"},
        Case{Message(messages::kCannotOpenPackage, "/v/p"), Category::kPackageRefused, kFailed,
            "/usr/tarn/etc/codesign/6"},
        Case{Message(messages::kCannotOpenPackage, "/v/p", messages::kForceInstall), Category::kPackageRefused, kFailed,
            "/usr/tarn/etc/codesign/6"},
        Case{Message(messages::kCannotExtract, "/v/p"), Category::kPackageUnusable, kFailed, "system log"},
        Case{Message(messages::kMissingSetting, "geo'-'x' not found"), Category::kWrongConfiguration, kFailed,
            "databases.conf"},
        Case{Message(messages::kWrongType), Category::kWrongConfiguration, kFailed, "wrong type"},
        Case{Message(messages::kInvalidValue, "x'"), Category::kWrongConfiguration, kFailed, "\"install_dest\""},
        Case{Message(messages::kCannotSet, "geo:auto_update"), Category::kNotWritable, kFailed,
            "/usr/tarn/etc/data_update"},
        Case{Message(messages::kFileNotExist, "/usr/share/data_update/databases.conf"), Category::kDefaultsMissing,
            kFailed, "default configuration"},
        Case{Message(messages::kFileNotExist, "/elsewhere"), Category::kOther, kFailed, "/elsewhere"},
        Case{Message(messages::kCannotDecode, "/x.conf"), Category::kUndecodable, kFailed, "correct that file"},
        Case{Message(messages::kCannotWrite, "/x"), Category::kNotWritable, kFailed, "permissions"},
        Case{Message(messages::kCannotCreateDirectory, "/x"), Category::kNotWritable, kFailed, "as root"},
        Case{Message(messages::kInvalidRecord, "x"), Category::kInvalidRecord, kFailed, "x."},
        Case{Message(messages::kInterrupted), Category::kInterrupted, kFailed, messages::kInterrupted},
        Case{"Something new", Category::kOther, kFailed, "Something new"}));

TEST(FailureTest, FindsTheCategoryBehindTheNameOfTheProject) {
	const std::string wrapper = Message(messages::kOnProject, "geo") + messages::kOnProjectEnd;
	EXPECT_EQ(CategoryOf(wrapper + messages::kCannotLock + kLock), Category::kLocked);
	EXPECT_EQ(CategoryOf(wrapper), Category::kOther);
}

TEST(FailureTest, NamesTheConfigurationFilesOfAMissingKey) {
	EXPECT_THAT(ExplainMessage("section-key: 'config'-'db_ver' not found", 0).sentence,
	    testing::AllOf(HasSubstr("/usr/tarn/etc/data_update/data_update.conf"),
	        HasSubstr("/usr/share/data_update/data_update.conf")));
	EXPECT_THAT(ExplainMessage("section-key: 'geo'-'format_version' not found", 0).sentence,
	    testing::AllOf(
	        HasSubstr("/usr/tarn/etc/data_update/databases.conf"), HasSubstr("/usr/share/data_update/databases.conf")));
}

TEST(FailureTest, TellsByTheClientsErrorWhyADownloadFailed) {
	const auto explain = [](int error) { return ExplainMessage("Fail to wget url: http://x/", error).sentence; };
	EXPECT_THAT(explain(TLIBC_ERR_EXIT + 3), HasSubstr("free space"));
	EXPECT_THAT(explain(TLIBC_ERR_EXIT + 4), HasSubstr("network"));
	EXPECT_THAT(explain(TLIBC_ERR_EXIT + 5), HasSubstr("certificate"));
	EXPECT_THAT(explain(TLIBC_ERR_EXIT + 7), HasSubstr("no HTTP"));
	EXPECT_THAT(explain(TLIBC_ERR_EXIT + 8), HasSubstr("answered with an error"));
	EXPECT_THAT(explain(ENOENT), HasSubstr("install wget"));
	EXPECT_THAT(explain(TLIBC_ERR_SIGNAL + 9), HasSubstr("check the network"));
}

TEST(FailureTest, TellsWhereHowMuchSpaceIsLacking) {
	std::string sentence;
	std::thread([&] { // Whose shortage no other test meets.
		dataupdate::NoteSpaceShortage({"/volume1", 6'000'000, 100'000'000, 1'500'000});
		sentence = ExplainMessage("Disk space is too low", 0).sentence;
	})
	    .join();
	EXPECT_EQ(sentence, "Disk space is too low; the file system of /volume1 had 6.0 MB free of 100.0 MB, and at least "
	                    "1.5 MB more had to "
	                    "be free, for 5 % must stay free: free some space there.");
}

TEST(FailureTest, TellsByTheClientsWordsWhyTheServerWasNotReached) {
	const auto describe = [](const char* said) { return DescribeClientFailure(TLIBC_ERR_EXIT + 4, said); };
	EXPECT_EQ(describe("Connecting to 127.0.0.1:1... failed: Connection refused."),
	    "nothing listens at that port: check the host, the port and the server (wget: Connecting to 127.0.0.1:1... "
	    "failed: Connection refused)");
	EXPECT_THAT(describe("wget: unable to resolve host address 'x'"), StartsWith("the name of the host is not known"));
	EXPECT_THAT(describe("Unable to establish SSL connection."), StartsWith("what answers speaks no TLS"));
	EXPECT_THAT(describe("Proxy tunneling failed: Proxy Authentication RequiredUnable to establish SSL connection."),
	    StartsWith("the proxy refuses"));
	for (const char* missing : {"ERROR 404: Not Found.", "ERROR 403: Forbidden."}) {
		EXPECT_THAT(DescribeClientFailure(TLIBC_ERR_EXIT + 8, missing), HasSubstr("\"tarndbudctl refresh\""));
	}
	EXPECT_THAT(describe("failed: Connection timed out."), StartsWith("the server does not answer"));
	EXPECT_THAT(describe("Read error"), StartsWith("the server cannot be reached or breaks off"));
	EXPECT_THAT(DescribeClientFailure(TLIBC_ERR_EXIT + 8, "ERROR 404: Connection refused."),
	    testing::AllOf(
	        StartsWith("the server answered with an error"), EndsWith("(wget: ERROR 404: Connection refused)")));
	EXPECT_THAT(DescribeClientFailure(ENOENT, "an earlier word"), EndsWith("install wget"));
}

TEST(FailureTest, TellsWhatToDoAboutADownloadThatWasEnded) {
	const auto explain = [](int reason) {
		return ExplainMessage("Fail to wget url: http://x/", TLIBC_ERR_DOWNLOAD + reason).sentence;
	};
	EXPECT_EQ(explain(TLIBC_DOWNLOAD_TOO_LARGE), "Fail to wget url: http://x/; the download was ended: check what the "
	                                             "server, or something on the way to it, sends "
	                                             "there.");
	EXPECT_THAT(explain(TLIBC_DOWNLOAD_NO_SPACE), EndsWith("free some space."));
	EXPECT_THAT(explain(TLIBC_DOWNLOAD_TOO_SLOW), EndsWith("another lowest_rate in /usr/tarn/etc/downloads.conf."));
	EXPECT_THAT(explain(TLIBC_DOWNLOAD_TOO_LONG), EndsWith("another deadline in /usr/tarn/etc/downloads.conf."));
}

TEST(FailureTest, DoesNotGuessByAnEarlierErrorWhyALinkWasRefused) {
	EXPECT_THAT(ExplainMessage("Fail to wget url: --post-file=/x", TLIBC_ERR_EXIT + 4).sentence,
	    HasSubstr("no link may begin with \"-\""));
}

TEST(FailureTest, LooksBehindTheNameOfTheProject) {
	const Failure failure = ExplainMessage("Fail on project 'geo': Fail to lock /run/x", 0);
	EXPECT_EQ(failure.code, kLocked);
	EXPECT_THAT(failure.sentence, StartsWith("geo: Fail to lock /run/x; "));
}

TEST(FailureTest, IsNotMisledByTheTextOfALink) {
	const Failure failure = ExplainMessage("Fail to wget url: http://x/Fail to lock /Project x not supported", 0);
	EXPECT_EQ(failure.code, kFailed);
	EXPECT_THAT(failure.sentence, HasSubstr("check the network"));
}

TEST(FailureTest, KeepsTheHintOfAMessageOfAnyLength) {
	const std::string link(100000, 'x');
	const std::string sentence = ExplainMessage("Fail to wget url: " + link, 0).sentence;
	EXPECT_LT(sentence.size(), 1000U);
	EXPECT_THAT(sentence, HasSubstr("...; check the network"));
}

template<typename Exception>
Failure Explain(const Exception& exception, const dataupdate::IOUtils& io) {
	try {
		throw exception;
	} catch (...) {
		return ExplainException(io);
	}
}

TEST(ExplainExceptionTest, ExplainsWhateverIsThrown) {
	const NiceMock<test::MockIOUtils> io;
	EXPECT_EQ(Explain(CommandError(kLocked, "Busy"), io).code, kLocked);
	EXPECT_EQ(Explain(CommandError(kLocked, "Busy"), io).sentence, "Busy.");
	EXPECT_EQ(Explain(UpdateError("Project x not supported"), io).code, kUnsupported);
	EXPECT_THAT(Explain(std::bad_alloc(), io).sentence, HasSubstr("memory"));
	EXPECT_EQ(Explain(std::runtime_error("odd"), io).sentence, "odd.");
	EXPECT_THAT(Explain(5, io).sentence, HasSubstr("unknown"));
	const boost::system::error_code denied(EACCES, boost::system::system_category());
	EXPECT_EQ(Explain(boost::filesystem::filesystem_error("status", "/v/file", denied), io).sentence,
	    "A file cannot be used: /v/file (Permission denied); check its permissions and the file system.");
}

TEST(ExplainExceptionTest, FindsTheConfigurationFileThatHoldsNoSections) {
	Json::Value good(Json::objectValue);
	good["config"] = Json::Value(Json::objectValue);
	Json::Value bad = good;
	bad["geo"] = Json::Value(Json::arrayValue);
	NiceMock<test::MockIOUtils> io;
	ON_CALL(io, ReadJson).WillByDefault(Return(good));
	ON_CALL(io, ReadJson("/usr/tarn/etc/data_update/data_update.conf"))
	    .WillByDefault(Throw(UpdateError("File not exist: ", UpdateError::kFileNotExist)));
	ON_CALL(io, ReadJson("/usr/share/data_update/databases.conf")).WillByDefault(Return(bad));
	const Failure failure = Explain(Json::LogicError("in Json::Value::find"), io);
	EXPECT_EQ(failure.code, kFailed);
	EXPECT_THAT(
	    failure.sentence, StartsWith("The configuration file /usr/share/data_update/databases.conf is malformed"));
}

} // namespace
} // namespace tarn::ctl
