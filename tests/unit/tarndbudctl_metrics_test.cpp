#include "base/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/messages.h"
#include "dataupdate/paths.h"
#include "host/library/failure.h"
#include "host/library/installed_package.h"
#include "host/library/run_record.h"
#include "host/terminal/text.h"
#include "private_root.h"
#include "tarndbudctl_doubles.h"
#include "temporary_directory.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <sys/stat.h>

#include <filesystem>
#include <sstream>
#include <string>

namespace tarn::ctl {
namespace {

using test::ReadFile;
using test::WriteFile;
using testing::HasSubstr;
using testing::Not;
using testing::Return;

TEST(MetricsTest, GathersTheSamplesOfAName) {
	Metrics metrics;
	metrics.Add("a", "First.", {{"x", "1"}, {"y", "2"}}, 1);
	metrics.Add("b", "Second.", {}, 0.5);
	metrics.Add("a", "", {{"x", "2"}}, 12345678901234);
	EXPECT_EQ(metrics.Text(), "# HELP a First.\n# TYPE a gauge\na{x=\"1\",y=\"2\"} 1\na{x=\"2\"} 12345678901234\n"
	                          "# HELP b Second.\n# TYPE b gauge\nb 0.5\n");
	EXPECT_EQ(Metrics().Text(), "");
}

TEST(MetricsTest, EscapesLabels) {
	Metrics metrics;
	metrics.Add("a", "h", {{"x", "q\"b\\n\n"}}, -1);
	EXPECT_THAT(metrics.Text(), HasSubstr("a{x=\"q\\\"b\\\\n\\n\"} -1\n"));
}

class MetricsCommandTest : public test::FixedPathsTest {
protected:
	void SetUp() override {
		test::FixedPathsTest::SetUp();
		ON_CALL(*doubles_.io, ReadJson).WillByDefault([](const std::string& path) {
			Json::Value value;
			std::istringstream(ReadFile(path)) >> value;
			return value;
		});
		ON_CALL(*doubles_.io, GetSize).WillByDefault(Return(4711));
	}
	std::string Run(ExitCode code = kDone) {
		doubles_.out.str("");
		EXPECT_EQ(kMetricsCommand.run(doubles_.services, options_), code);
		return doubles_.out.str();
	}

	/** When the document was fetched. */
	static std::string TimeIn(const std::string& metrics) {
		const std::string name = "\ntarndbud_document_timestamp_seconds ";
		const std::size_t begin = metrics.find(name) + name.size();
		return metrics.substr(begin, metrics.find('\n', begin) - begin);
	}

	test::Doubles doubles_;
	Options options_;
};

TEST_F(MetricsCommandTest, MeasuresWhatIsInstalledAndWhatWasOffered) {
	doubles_.Install(4, "geo");
	WriteFile(dataupdate::kCachedInfo,
	    R"({"db_list":{"geo":{"data_version":"7","last_fetch_time":1,"download_link":"x"},"zip":{"data_version":"x"}}})");
	EXPECT_CALL(*doubles_.info, GetDatabaseInfo).Times(0);
	EXPECT_CALL(*doubles_.info, GetRemoteInfo).Times(0);
	const std::string text = Run();
	for (const char* line : {"tarndbud_installed{database=\"geo\"} 1\n", "tarndbud_installed{database=\"zip\"} 0\n",
	         "tarndbud_installed_version{database=\"geo\"} 4\n", "tarndbud_offered_version{database=\"geo\"} 7\n",
	         "tarndbud_installed_bytes{database=\"geo\"} 4711\n", "tarndbud_scheduled{database=\"zip\"} 1\n",
	         "tarndbud_above_offered{database=\"geo\"} 0\n", "tarndbud_volume_available 0\n"}) {
		EXPECT_THAT(text, HasSubstr(line));
	}
	EXPECT_THAT(text, Not(HasSubstr("tarndbud_data_"))) << "nothing tells when the data was published";
	EXPECT_THAT(text, Not(HasSubstr("_version{database=\"zip\"}")));
}

TEST_F(MetricsCommandTest, TakesTheAgeFromTheSignedPackageOfTheInstalledVersion) {
	doubles_.Install(4, "geo");
	WriteFile(InstalledPackagePath("geo"), R"({"data_version":4,"published":1700000000})");
	std::string text = Run();
	EXPECT_THAT(text, HasSubstr("tarndbud_data_timestamp_seconds{database=\"geo\"} 1700000000\n"));
	EXPECT_THAT(text, HasSubstr("tarndbud_data_age_seconds{database=\"geo\"} "));
	doubles_.Install(5, "geo");
	text = Run();
	EXPECT_THAT(text, Not(HasSubstr("tarndbud_data_"))) << "the record is one of version 4";
}

TEST_F(MetricsCommandTest, TellsThatALaterVersionIsInstalledThanOffered) {
	doubles_.Install(8, "geo");
	WriteFile(
	    dataupdate::kCachedInfo, R"({"db_list":{"geo":{"data_version":"7","last_fetch_time":1,"download_link":"x"}}})");
	EXPECT_THAT(Run(), HasSubstr("tarndbud_above_offered{database=\"geo\"} 1\n"));
	WriteFile("/var/lib/data_update/geo/version.json", "{}");
	WriteFile("/var/lib/data_update/geo/replacing", "");
	EXPECT_THAT(Run(), HasSubstr("tarndbud_above_offered{database=\"geo\"} 0\n")) << "it is installed again";
}

TEST_F(MetricsCommandTest, TellsNoSizeOfFilesThatAreBeingReplaced) {
	doubles_.Install(4, "geo");
	WriteFile("/usr/share/data_update/data_update.conf", "{}");
	WriteFile("/usr/share/data_update/databases.conf", R"({"geo":{},"zip":{}})");
	const dataupdate::FileLock replacing("/run/data_update/using_geo.lock", 0);
	EXPECT_CALL(*doubles_.io, GetSize).Times(0);
	const std::string text = Run();
	EXPECT_THAT(text, HasSubstr("tarndbud_installed_version{database=\"geo\"} 4\n"));
	EXPECT_THAT(text, Not(HasSubstr("tarndbud_installed_bytes")));
}

TEST_F(MetricsCommandTest, ToldNothingOfASilentServer) {
	const std::string text = Run();
	EXPECT_THAT(text, Not(HasSubstr("offered_version")));
	EXPECT_THAT(text, Not(HasSubstr("document_timestamp")));
	EXPECT_THAT(text, Not(HasSubstr("last_run")));
}

TEST_F(MetricsCommandTest, TellsWhatWasOfferedLastWhenTheServerHasFallenSilent) {
	doubles_.Install(8, "geo");
	const auto fail = []() -> ExitCode { throw CommandError(kFailed, "silent"); };
	WriteFile(
	    dataupdate::kCachedInfo, R"({"db_list":{"geo":{"data_version":"9","last_fetch_time":1,"download_link":"x"}}})");
	EXPECT_EQ(RunRecorded(doubles_.services, "geo", "update", [] { return kDone; }), kDone);
	const std::string heard = Run();
	EXPECT_THAT(heard, HasSubstr("tarndbud_document_timestamp_seconds "));
	std::filesystem::remove(dataupdate::kCachedInfo);
	for (int times = 0; times < 2; ++times) {
		EXPECT_THROW(RunRecorded(doubles_.services, "geo", "update", fail), CommandError);
		const std::string text = Run();
		EXPECT_THAT(text, HasSubstr("tarndbud_offered_version{database=\"geo\"} 9\n"));
		EXPECT_THAT(text, HasSubstr("tarndbud_above_offered{database=\"geo\"} 0\n"));
		EXPECT_THAT(text, HasSubstr("tarndbud_document_timestamp_seconds " + TimeIn(heard) + "\n"));
	}
	EXPECT_EQ(RunRecorded(doubles_.services, "geo", "import", [] { return kDone; }), kDone);
	EXPECT_THAT(Run(), Not(HasSubstr("offered_version"))) << "a kit may be later than any document";
}

TEST_F(MetricsCommandTest, KnowsTheOfferOfBeforeWhileADocumentIsBeingFetched) {
	const auto run = [this](const std::string& version) {
		WriteFile(dataupdate::kCachedInfo,
		    R"({"db_list":{"geo":{"data_version":")" + version + R"(","last_fetch_time":1,"download_link":"x"}}})");
		EXPECT_EQ(RunRecorded(doubles_.services, "geo", "update", [] { return kDone; }), kDone);
		return ReadRunRecord("geo")->offered_version;
	};
	EXPECT_EQ(run("9"), 9);
	const dataupdate::FileLock fetching(dataupdate::kFreshInfoLock, 0);
	EXPECT_EQ(run("10"), 9);
}

TEST_F(MetricsCommandTest, TellsHowTheLastRunWent) {
	EXPECT_EQ(RunRecorded(doubles_.services, "geo", "update", [] { return kDone; }), kDone);
	EXPECT_THROW(
	    RunRecorded(doubles_.services, "zip", "fix", []() -> ExitCode { throw CommandError(kLocked, "busy"); }),
	    CommandError);
	const std::string text = Run();
	EXPECT_THAT(text, HasSubstr("tarndbud_last_run_success{database=\"geo\",operation=\"update\"} 1\n"));
	EXPECT_THAT(text, HasSubstr("tarndbud_last_run_success{database=\"zip\",operation=\"fix\"} 0\n"));
	EXPECT_THAT(text, HasSubstr("tarndbud_last_run_exit_status{database=\"zip\",operation=\"fix\"} 75\n"));
}

TEST_F(MetricsCommandTest, TellsTheCategoryOfTheLastFailureUntilARunSucceeds) {
	const auto fail = []() -> ExitCode { throw dataupdate::UpdateError(dataupdate::messages::kLowSpace); };
	EXPECT_THROW(RunRecorded(doubles_.services, "geo", "update", fail), dataupdate::UpdateError);
	EXPECT_THAT(Run(),
	    HasSubstr("tarndbud_last_run_failure{database=\"geo\",operation=\"update\",category=\"low_space\"} 1\n"));
	EXPECT_EQ(RunRecorded(doubles_.services, "geo", "update", [] { return kAboveOffered; }), kAboveOffered);
	EXPECT_THAT(Run(), HasSubstr("category=\"above_offered\"} 1\n"));
	EXPECT_EQ(RunRecorded(doubles_.services, "geo", "update", [] { return kDone; }), kDone);
	EXPECT_THAT(Run(), Not(HasSubstr("tarndbud_last_run_failure")));
}

TEST_F(MetricsCommandTest, CountsWhatAllRunsDownloaded) {
	WriteFile(RunRecordPath("geo"), R"({"operation":"update","exit_status":0,"downloaded_total":4000000000000})");
	EXPECT_EQ(RunRecorded(doubles_.services, "geo", "update", [] { return kDone; }), kDone);
	const std::string text = Run();
	EXPECT_THAT(text, HasSubstr("# TYPE tarndbud_downloaded_bytes_total counter\n"));
	EXPECT_THAT(text, HasSubstr("tarndbud_downloaded_bytes_total{database=\"geo\"} 4000000000000\n"));
}

TEST_F(MetricsCommandTest, MeasuresTheOthersWhenOneRecordIsBad) {
	ON_CALL(*doubles_.info, GetDatabaseStatus("geo"))
	    .WillByDefault(testing::Throw(dataupdate::UpdateError("Bad record")));
	EXPECT_THAT(Run(kFailed), HasSubstr("tarndbud_installed{database=\"zip\"} 0\n"));
	EXPECT_EQ(doubles_.err.str(), "tarndbudctl: geo: Bad record.\n");
}

TEST_F(MetricsCommandTest, WritesAFileAsAWhole) {
	const test::TemporaryDirectory directory;
	options_.path = directory / "tarndbud.prom";
	WriteFile(options_.path, "earlier");
	const std::string earlier = directory / "earlier";
	std::filesystem::create_hard_link(options_.path, earlier);
	EXPECT_EQ(Run(), "");
	EXPECT_THAT(ReadFile(options_.path), HasSubstr("\ntarndbud_volume_available 0\n"));
	EXPECT_EQ(ReadFile(earlier), "earlier") << "the file was written to in its place";
}

} // namespace
} // namespace tarn::ctl
