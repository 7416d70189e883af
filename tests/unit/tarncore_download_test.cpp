#include "base/unique_fd.h"
#include "platform/tarncore/complaints.h"
#include "platform/tarncore/download.h"
#include "syslog_capture.h"
#include "temporary_directory.h"

#include <tarncore/tarncore.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace tarn::core {
namespace {

using std::chrono::seconds;
using test::ReadFile;
using test::SyslogCapture;
using test::TemporaryDirectory;
using test::WriteFile;
using testing::HasSubstr;
using testing::Optional;

constexpr std::uint64_t kMib = 1UL << 20U;
constexpr Space kRoomy = {1000 * kMib, 1000 * kMib};

/** A guard on a clock that the test moves. */
class GuardTest : public testing::Test {
protected:
	DownloadGuard Make(const std::optional<Space>& space = kRoomy, std::uint64_t size = 0) const {
		return {settings_, limits_, space, size, begin_};
	}

	bool Look(DownloadGuard& guard, std::uint64_t size, int second, const Space& space = kRoomy) const {
		return guard.MayGoOn(size, space, begin_ + seconds(second));
	}

	DownloadSettings settings_;
	TLIBCDownloadLimits limits_ = {};
	DownloadGuard::Clock::time_point begin_ = DownloadGuard::Clock::now();
};

TEST_F(GuardTest, KeepsATwentiethOfTheFileSystemFree) {
	EXPECT_THAT(Make(Space{300 * kMib, 1000 * kMib}).LargestFile(), Optional(250 * kMib));
	EXPECT_THAT(Make(Space{300 * kMib, 1000 * kMib}, 7 * kMib).LargestFile(), Optional(257 * kMib));
	EXPECT_EQ(Make(std::nullopt).LargestFile(), std::nullopt);
}

TEST_F(GuardTest, LetsASmallFileTakeHalfOfAnAlmostFullDisk) {
	EXPECT_THAT(Make(Space{40 * kMib, 1000 * kMib}).LargestFile(), Optional(2 * kMib));
	EXPECT_THAT(Make(Space{1 * kMib, 1000 * kMib}).LargestFile(), Optional(kMib / 2));
	DownloadGuard guard = Make(Space{3 * kMib, 1000 * kMib});
	EXPECT_TRUE(Look(guard, kMib, 0, {2 * kMib, 1000 * kMib}));
}

TEST_F(GuardTest, EndsADownloadWhenOthersFillTheDisk) {
	DownloadGuard guard = Make();
	EXPECT_TRUE(Look(guard, 100 * kMib, 0, {50 * kMib, 1000 * kMib}));
	EXPECT_FALSE(Look(guard, 100 * kMib, 0, {50 * kMib - 1, 1000 * kMib}));
	EXPECT_EQ(guard.End()->reason, TLIBC_DOWNLOAD_NO_SPACE);
	DownloadGuard small = Make();
	EXPECT_FALSE(Look(small, kMib, 0, {kMib - 1, 1000 * kMib}));
}

TEST_F(GuardTest, TakesTheHostsLimitWhereItIsLower) {
	limits_.largest_bytes = 5000;
	limits_.largest_is = "announced";
	DownloadGuard guard = Make();
	EXPECT_THAT(guard.LargestFile(), Optional(5000U));
	guard.NoteExcess();
	EXPECT_EQ(guard.End()->reason, TLIBC_DOWNLOAD_TOO_LARGE);
	EXPECT_EQ(guard.End()->text, "it is larger than announced (5000 bytes)");
	limits_.largest_bytes = 5000 * kMib;
	DownloadGuard of_disk = Make();
	EXPECT_THAT(of_disk.LargestFile(), Optional(950 * kMib));
	of_disk.NoteExcess();
	EXPECT_EQ(of_disk.End()->reason, TLIBC_DOWNLOAD_NO_SPACE);
}

TEST_F(GuardTest, EndsADownloadBelowTheLowestRate) {
	settings_.lowest_rate = 100;
	settings_.patience = seconds(10);
	DownloadGuard guard = Make();
	EXPECT_TRUE(Look(guard, 999, 9));
	EXPECT_TRUE(Look(guard, 1000, 9));  // Enough; the patience begins again.
	EXPECT_TRUE(Look(guard, 1999, 18)); // Not enough, but there is time.
	EXPECT_FALSE(Look(guard, 1999, 19));
	EXPECT_EQ(guard.End()->reason, TLIBC_DOWNLOAD_TOO_SLOW);
	EXPECT_EQ(guard.End()->text, "it was slower than 100 bytes/s for 10 s");
}

TEST_F(GuardTest, CountsTheTimeBeforeTheFirstByte) {
	settings_.patience = seconds(10);
	DownloadGuard guard = Make(kRoomy, 5000); // What is there already is no progress.
	EXPECT_TRUE(Look(guard, 5000, 9));
	EXPECT_FALSE(Look(guard, 0, 10));
	EXPECT_EQ(guard.End()->reason, TLIBC_DOWNLOAD_TOO_SLOW);
}

TEST_F(GuardTest, CountsWhatCameBeforeTheFileWasBegunAgain) {
	settings_.lowest_rate = 100;
	settings_.patience = seconds(10);
	DownloadGuard guard = Make();
	EXPECT_TRUE(Look(guard, 600, 4));
	EXPECT_TRUE(Look(guard, 0, 5));
	EXPECT_TRUE(Look(guard, 400, 9));
	EXPECT_TRUE(Look(guard, 400, 18));
	EXPECT_FALSE(Look(guard, 400, 19));
}

TEST_F(GuardTest, LetsADownloadBeSlowWhenTheLowestRateIsZero) {
	settings_.lowest_rate = 0;
	DownloadGuard guard = Make();
	EXPECT_TRUE(Look(guard, 0, 10000));
}

TEST_F(GuardTest, EndsADownloadAtTheEarlierDeadline) {
	settings_.deadline = seconds(30);
	settings_.lowest_rate = 0;
	const auto end_with = [&](unsigned int of_host) {
		limits_.seconds = of_host;
		DownloadGuard guard = Make();
		int second = 0;
		while (Look(guard, 0, second)) {
			++second;
		}
		EXPECT_EQ(guard.End()->reason, TLIBC_DOWNLOAD_TOO_LONG);
		return guard.End()->text;
	};
	EXPECT_EQ(end_with(0), "it did not end within its deadline of 30 s");
	EXPECT_EQ(end_with(20), "it did not end within its deadline of 20 s");
	EXPECT_EQ(end_with(40), "it did not end within its deadline of 30 s");
}

class DownloadSettingsTest : public testing::Test {
protected:
	DownloadSettings Read(const std::string& text) const {
		WriteFile(path_, text);
		chmod(path_.c_str(), 0644);
		return ReadDownloadSettings(path_, geteuid());
	}

	SyslogCapture log_;
	TemporaryDirectory directory_;
	std::string path_ = directory_ / "downloads.conf";
};

TEST_F(DownloadSettingsTest, AreReadByName) {
	const DownloadSettings settings = Read("# limits\ndeadline 60\n\tlowest_rate\t0 # any\npatience 5\n");
	EXPECT_EQ(settings.deadline, seconds(60));
	EXPECT_EQ(settings.lowest_rate, 0U);
	EXPECT_EQ(settings.patience, seconds(5));
	EXPECT_EQ(log_.Lines().size(), 0U);
}

TEST_F(DownloadSettingsTest, KnowEveryDirectiveThatIsListed) {
	for (const std::string& name : DownloadDirectives()) {
		Read(name + " 7\n");
		EXPECT_EQ(log_.Lines().size(), 0U) << name;
	}
}

TEST_F(DownloadSettingsTest, HaveDefaults) {
	for (const DownloadSettings& settings : {Read(""), ReadDownloadSettings(directory_ / "absent", geteuid())}) {
		EXPECT_EQ(settings.deadline, seconds(14400));
		EXPECT_EQ(settings.lowest_rate, 1000U);
		EXPECT_EQ(settings.patience, seconds(120));
	}
}

TEST_F(DownloadSettingsTest, SkipAndTellLinesThatCannotBeUnderstood) {
	const DownloadSettings settings =
	    Read("deadline 0\ndeadline\ndeadline -1\npatience 0x10\nlowest_rate 5k\nlowest_rate 9999999999\nspeed 3\n");
	EXPECT_EQ(settings.deadline, seconds(14400));
	EXPECT_EQ(settings.lowest_rate, 1000U);
	EXPECT_EQ(settings.patience, seconds(120));
	EXPECT_EQ(log_.Count(LOG_WARNING, {path_, "the number is missing or out of range"}), 6);
	EXPECT_EQ(log_.Count(LOG_WARNING, {path_ + ":7", "unknown directive: 'speed 3'"}), 1);
}

TEST_F(DownloadSettingsTest, AreNotObeyedWhenOthersMayWriteThem) {
	Read("deadline 60\n");
	chmod(path_.c_str(), 0666);
	EXPECT_EQ(ReadDownloadSettings(path_, geteuid()).deadline, seconds(14400));
	EXPECT_EQ(log_.Count(LOG_WARNING, {path_}), 1);
	chmod(path_.c_str(), 0644);
	EXPECT_EQ(ReadDownloadSettings(path_, geteuid() + 1).deadline, seconds(14400)) << "they own the file";
	EXPECT_EQ(log_.Count(LOG_WARNING, {path_}), 2);
	EXPECT_EQ(ReadDownloadSettings(path_, geteuid()).deadline, seconds(60));
}

TEST(AsDownloadTest, KnowsTheClientByItsPathAndItsFile) {
	process::Program program;
	program.path = "/usr/bin/wget";
	program.arguments = {"-N", "http://host/file", "-O", "/tmp/file", "-U", "agent"};
	const std::optional<Download> download = AsDownload(program);
	ASSERT_TRUE(download);
	EXPECT_EQ(download->url, "http://host/file");
	EXPECT_EQ(download->file, "/tmp/file");
	program.path = "/bin/cat";
	EXPECT_FALSE(AsDownload(program));
	program.path = "/usr/bin/wget";
	program.arguments = {"http://host/", "-O"};
	EXPECT_FALSE(AsDownload(program));
	program.arguments = {"http://host/"};
	EXPECT_FALSE(AsDownload(program));
}

/** Answers every request with a beginning and then, for as long as it lives, with more of it or with nothing. */
class LoopbackServer {
public:
	explicit LoopbackServer(bool endless) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
		sockaddr_in address = {};
		address.sin_family = AF_INET;
		address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
		socklen_t length = sizeof address;
		// NOLINTBEGIN(cppcoreguidelines-pro-type-reinterpret-cast): how the system's interface is.
		EXPECT_EQ(bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
		EXPECT_EQ(listen(socket_.Get(), 5), 0);
		EXPECT_EQ(getsockname(socket_.Get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
		// NOLINTEND(cppcoreguidelines-pro-type-reinterpret-cast)
		url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/file";
		thread_ = std::thread([this, endless] { Serve(endless); });
	}
	~LoopbackServer() {
		ending_ = true;
		shutdown(socket_.Get(), SHUT_RDWR);
		thread_.join();
	}
	LoopbackServer(const LoopbackServer&) = delete;
	LoopbackServer& operator=(const LoopbackServer&) = delete;

	const std::string& Url() const { return url_; }

private:
	void Serve(bool endless) const {
		const std::string body(65536, 'x');
		while (!ending_) {
			const UniqueFd connection(accept4(socket_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
			std::string answer = "HTTP/1.0 200 OK\r\n\r\n";
			while (connection && !ending_ && send(connection.Get(), answer.data(), answer.size(), MSG_NOSIGNAL) > 0) {
				answer = body;
				while (!endless && !ending_) {
					usleep(10000);
				}
			}
		}
	}

	UniqueFd socket_;
	std::string url_;
	std::atomic<bool> ending_ = false;
	std::thread thread_;
};

class GuardedExecTest : public testing::Test {
protected:
	GuardedExecTest() {
		setenv("no_proxy", "127.0.0.1", 1);
		TLIBCDownloadLimiterSet(
		    [](const char* url, const char* file, TLIBCDownloadLimits* limits, void* data) {
			    auto& self = *static_cast<GuardedExecTest*>(data);
			    self.asked_ = std::string(url) + " " + file;
			    *limits = self.limits_;
		    },
		    this);
	}
	~GuardedExecTest() override { TLIBCDownloadLimiterSet(nullptr, nullptr); }

	int Run(const LoopbackServer& server) const {
		return TLIBCExecl("/usr/bin/wget", TLIBC_EXEC_ISOLATED, "-N", server.Url().c_str(), "-O", file_.c_str(),
		    static_cast<const char*>(nullptr));
	}

	SyslogCapture log_;
	TemporaryDirectory directory_;
	std::string file_ = directory_ / "file";
	TLIBCDownloadLimits limits_ = {};
	std::string asked_;
};

TEST_F(GuardedExecTest, NeverWritesAByteMoreThanTheHostAllows) {
	const LoopbackServer server(true);
	limits_.largest_bytes = 100'001;
	limits_.largest_is = "announced";
	EXPECT_EQ(Run(server), -1);
	EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_DOWNLOAD + TLIBC_DOWNLOAD_TOO_LARGE);
	EXPECT_STREQ(TLIBCDownloadFailureGet(), "it is larger than announced (100001 bytes)");
	EXPECT_EQ(FileSize(file_), 100'001U);
	EXPECT_EQ(asked_, server.Url() + " " + file_);
	EXPECT_EQ(log_.Count(LOG_WARNING, {"the download of '" + server.Url() + "' was ended: it is larger"}), 1);
}

TEST_F(GuardedExecTest, EndsADownloadThatHangs) {
	const LoopbackServer server(false);
	limits_.seconds = 1;
	const auto begin = std::chrono::steady_clock::now();
	EXPECT_EQ(Run(server), -1);
	EXPECT_LT(std::chrono::steady_clock::now() - begin, seconds(20));
	EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_DOWNLOAD + TLIBC_DOWNLOAD_TOO_LONG);
	EXPECT_THAT(TLIBCDownloadFailureGet(), HasSubstr("deadline of 1 s"));
}

TEST_F(GuardedExecTest, ForgetsTheReasonWithTheNextDownload) {
	limits_.largest_bytes = 10;
	EXPECT_EQ(Run(LoopbackServer(true)), -1);
	EXPECT_STRNE(TLIBCDownloadFailureGet(), "");
	limits_ = {};
	// Nobody listens there.
	EXPECT_EQ(TLIBCExecl("/usr/bin/wget", TLIBC_EXEC_ISOLATED, "http://127.0.0.1:9/", "-O", file_.c_str(), "--tries=1",
	              static_cast<const char*>(nullptr)),
	    4);
	EXPECT_STREQ(TLIBCDownloadFailureGet(), "Connecting to 127.0.0.1:9... failed: Connection refused.");
	EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_EXIT + 4);
}

TEST(ComplaintsTest, AreTheLastLineThatTellsWhatWentWrong) {
	EXPECT_EQ(LastComplaint(""), "");
	EXPECT_EQ(LastComplaint("Resolving x... done.\nwget: unable to resolve host address 'x'\n\n"),
	    "wget: unable to resolve host address 'x'");
	EXPECT_EQ(LastComplaint("ERROR: The certificate of 'x' is not trusted.\nTo connect to x insecurely, use -\n"),
	    "ERROR: The certificate of 'x' is not trusted.");
	EXPECT_EQ(LastComplaint("No data received.\nRetrying.\nGiving up.\n"), "No data received.");
	EXPECT_EQ(LastComplaint("a\n\x1b[2Jb"), "?[2Jb");
	EXPECT_EQ(LastComplaint(std::string(100000, 'x')).size(), 303U) << "with three dots";
}

TEST(ComplaintsTest, KeepTheEndOfAnyOutputAndNeverWait) {
	Complaints complaints;
	complaints.Drain();
	EXPECT_EQ(complaints.Last(), "");
	for (int round = 0; round < 100; ++round) {
		const std::string line = std::string(2000, 'x') + "\nround " + std::to_string(round) + "\n";
		ASSERT_EQ(write(complaints.Stream(), line.data(), line.size()), static_cast<ssize_t>(line.size()));
		complaints.Drain();
	}
	EXPECT_EQ(complaints.Last(), "round 99");
	complaints.CloseStream();
	complaints.Drain();
	EXPECT_EQ(complaints.Last(), "round 99");
}

TEST_F(GuardedExecTest, LeavesOtherProgramsAlone) {
	limits_.largest_bytes = 1;
	EXPECT_EQ(TLIBCExecl("/bin/sh", TLIBC_EXEC_ISOLATED, "-c", "echo word > \"$1\"", "-O", file_.c_str(),
	              static_cast<const char*>(nullptr)),
	    0);
	EXPECT_EQ(ReadFile(file_), "word\n");
	EXPECT_EQ(asked_, "");
}

} // namespace
} // namespace tarn::core
