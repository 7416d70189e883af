#include "dataupdate/download_source.h"
#include "dataupdate/interruption.h"
#include "dataupdate/progress.h"
#include "dataupdate/utils.h"
#include "fake_platform.h"
#include "fake_system.h"
#include "library_test.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace tarn::dataupdate {
namespace {

/** Hands out what a test says for every URL. */
class Source : public DownloadSource {
public:
	explicit Source(std::function<void(const std::string& url, const Sink& sink)> fetch) : fetch_(std::move(fetch)) {}

	void Fetch(const std::string& url, const Sink& sink) const override { fetch_(url, sink); }

private:
	std::function<void(const std::string& url, const Sink& sink)> fetch_;
};

class DownloadSourceTest : public testing::Test {
protected:
	~DownloadSourceTest() override { ForgetInterruption(); }

	std::string ErrorOfDownload(const std::function<void(const DownloadSource::Sink& sink)>& fetch) {
		const DownloadSourceScope scope(
		    std::make_shared<Source>([&](const std::string&, const DownloadSource::Sink& sink) { fetch(sink); }));
		return MessageOf([&] { io_.Download(file_, "http://server/a"); });
	}

	test::TemporaryDirectory directory_;
	test::FakePlatform platform_;
	test::FakeSystem system_;
	IOUtils io_;
	std::string file_ = directory_ / "file";
};

TEST_F(DownloadSourceTest, GivesTheFileAndNoProgramIsStarted) {
	WriteFile(file_, "an older and longer one");
	const std::uint64_t before = DownloadedBytes();
	{
		const DownloadSourceScope scope(
		    std::make_shared<Source>([&](const std::string& url, const DownloadSource::Sink& sink) {
			    EXPECT_EQ(url, "http://server/a");
			    EXPECT_EQ(CurrentActivity().phase, Phase::kDownload);
			    EXPECT_EQ(CurrentActivity().path, file_);
			    sink("one ");
			    sink("two");
		    }));
		io_.Download(file_, "http://server/a");
	}
	EXPECT_EQ(ReadFile(file_), "one two");
	EXPECT_EQ(DownloadedBytes(), before) << "the network had nothing to do with it";
	EXPECT_EQ(platform_.events, std::vector<std::string>());
}

TEST_F(DownloadSourceTest, IsGoneWithItsScope) {
	{
		const DownloadSourceScope scope(
		    std::make_shared<Source>([](const std::string&, const DownloadSource::Sink&) { FAIL(); }));
	}
	io_.Download(file_, "http://server/a");
	EXPECT_EQ(ReadFile(file_), platform_.download_content);
}

TEST_F(DownloadSourceTest, LeavesNothingOfAFileThatCannotBeHadToTheEnd) {
	WriteFile(file_, "an older one");
	EXPECT_EQ(ErrorOfDownload([](const DownloadSource::Sink& sink) {
		sink("half");
		throw UpdateError("The stick was pulled");
	}),
	    "The stick was pulled");
	EXPECT_NE(access(file_.c_str(), F_OK), 0);
	EXPECT_EQ(platform_.events, std::vector<std::string>()) << "nothing is downloaded in its place";
}

TEST_F(DownloadSourceTest, SaysThatTheFileCannotBeWritten) {
	system_.Fail("write", ENOSPC);
	EXPECT_EQ(ErrorOfDownload([](const DownloadSource::Sink& sink) { sink("x"); }),
	    "Fail to write: " + file_ + " (No space left on device)");
	EXPECT_NE(access(file_.c_str(), F_OK), 0);
	file_ = directory_ / "none/file";
	EXPECT_EQ(ErrorOfDownload([](const DownloadSource::Sink&) {}),
	    "Fail to write: " + file_ + " (No such file or directory)");
}

TEST_F(DownloadSourceTest, WritesToNoFileThatALinkLeadsTo) {
	WriteFile(directory_ / "other", "as it was");
	ASSERT_EQ(link((directory_ / "other").c_str(), file_.c_str()), 0);
	const DownloadSourceScope scope(
	    std::make_shared<Source>([](const std::string&, const DownloadSource::Sink& sink) { sink("new"); }));
	io_.Download(file_, "http://server/a");
	EXPECT_EQ(ReadFile(directory_ / "other"), "as it was");
	EXPECT_EQ(ReadFile(file_), "new");
}

TEST_F(DownloadSourceTest, CanBeEndedBetweenTwoPieces) {
	EXPECT_EQ(ErrorOfDownload([](const DownloadSource::Sink& sink) {
		sink("one");
		RequestInterruption();
		sink("two");
	}),
	    "Interrupted");
	EXPECT_NE(access(file_.c_str(), F_OK), 0);
}

} // namespace
} // namespace tarn::dataupdate
