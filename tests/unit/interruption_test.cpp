#include "dataupdate/file_lock.h"
#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/digest_stream.h"
#include "dataupdate/internal/replacement_scope.h"
#include "dataupdate/project_lock.h"
#include "dataupdate/strategy.h"
#include "dataupdate/utils.h"
#include "fake_platform.h"
#include "fake_system.h"
#include "library_test.h"
#include "private_root.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <string>

namespace tarn::dataupdate {
namespace {

class InterruptionTest : public test::FixedPathsTest {
protected:
	void TearDown() override {
		ForgetInterruption();
		FixedPathsTest::TearDown();
	}
	FullStrategy Strategy() const {
		return {"geo", RemoteInfo(5, 0, false, "http://h/p"), directory_ / "volume", directory_ / "volume/geo",
		    directory_ / "volume"};
	}

	test::TemporaryDirectory directory_;
	test::FakePlatform platform_;
	test::FakeSystem system_;
};

TEST_F(InterruptionTest, NothingBeginsOnceItIsAskedFor) {
	InterruptionPoint();
	RequestInterruption();
	EXPECT_TRUE(IsInterruptionRequested());
	EXPECT_EQ(MessageOf([] { InterruptionPoint(); }), "Interrupted");
	EXPECT_EQ(MessageOf([&] { IOUtils().Download(directory_ / "file", "http://h/p"); }), "Interrupted");
	EXPECT_EQ(platform_.CountEvents("/usr/bin/wget"), 0U);
	ForgetInterruption();
	IOUtils().Download(directory_ / "file", "http://h/p");
}

TEST_F(InterruptionTest, EndsTheWaitForALock) {
	const std::string path = directory_ / "x.lock";
	const FileLock holder(path, 0);
	system_.on_poll = [](int number) {
		if (number == 3) {
			RequestInterruption();
		}
	};
	EXPECT_EQ(MessageOf([&] { FileLock(path, 600); }), "Fail to lock " + path);
	EXPECT_EQ(system_.polls, 3);
}

TEST_F(InterruptionTest, LetsAFreeLockBeTaken) {
	RequestInterruption();
	const FileLock lock(directory_ / "x.lock", 600);
}

TEST_F(InterruptionTest, EndsADigest) {
	WriteFile(directory_ / "file", std::string(1000000, 'x'));
	const ActivityScope before(Phase::kUnpack, "");
	RequestInterruption();
	EXPECT_EQ(MessageOf([&] { FileSha384(directory_ / "file"); }), "Interrupted");
	ForgetInterruption();
	DigestStream stream(directory_ / "file");
	RequestInterruption();
	EXPECT_EQ(MessageOf([&] { GetSha384(stream); }), "Fail during reading for SHA digest");
}

TEST_F(InterruptionTest, LeavesNoTemporaryDataAndTheInstalledFilesAlone) {
	WriteFile(directory_ / "volume/geo/file", "old");
	platform_.package_files = {{"file", "new"}};
	{
		FullStrategy strategy = Strategy();
		platform_.extract_more = [](const std::string&) { RequestInterruption(); };
		EXPECT_EQ(MessageOf([&] { strategy.PrepareUpdate(); }), "Interrupted");
		const FileLock reader("/run/data_update/using_geo.lock", 0);
		EXPECT_EQ(MessageOf([&] { strategy.ApplyUpdate(); }),
		    "Fail to full update: Fail to lock /run/data_update/using_geo.lock");
	}
	EXPECT_TRUE(std::filesystem::is_empty(directory_ / "volume/@tmp/data_update"));
	EXPECT_EQ(test::ReadFile(directory_ / "volume/geo/file"), "old");
}

TEST_F(InterruptionTest, WaitsForTheEndOfAReplacement) {
	WriteFile(directory_ / "volume/geo/file", "old");
	platform_.package_files = {{"file", "new"}};
	FullStrategy strategy = Strategy();
	strategy.PrepareUpdate();
	{
		const ReplacementScope replacement("geo");
		strategy.ApplyUpdate();
		RequestInterruption();
		EXPECT_EQ(FileSha384(directory_ / "volume/geo/file").size(), 96U);
	}
	EXPECT_EQ(MessageOf([&] { FileSha384(directory_ / "volume/geo/file"); }), "Interrupted");
}

TEST_F(InterruptionTest, MayEndAHostsOwnUseOfAStrategyAfterItsReplacement) {
	platform_.package_files = {{"file", "new"}};
	FullStrategy strategy = Strategy();
	strategy.PrepareUpdate();
	strategy.ApplyUpdate();
	RequestInterruption();
	EXPECT_EQ(MessageOf([&] { FileSha384(directory_ / "volume/geo/file"); }), "Interrupted");
}

TEST_F(InterruptionTest, IsNotSeenWhileAShieldIsUp) {
	RequestInterruption();
	{
		const InterruptionShield outer;
		{ const InterruptionShield inner; }
		EXPECT_FALSE(IsInterrupted());
		InterruptionPoint();
	}
	EXPECT_TRUE(IsInterrupted());
}

TEST_F(InterruptionTest, CountsTheBytesOfWholeDownloadsAndOfThoseThatBreakOff) {
	const std::uint64_t before = DownloadedBytes();
	platform_.download_content = "12345";
	IOUtils().Download(directory_ / "file", "http://h/p");
	EXPECT_EQ(DownloadedBytes() - before, 5U);
	platform_.execl = [this](auto&&...) {
		test::WriteFile(directory_ / "file", "123");
		return 4;
	};
	EXPECT_NE(MessageOf([&] { IOUtils().Download(directory_ / "file", "http://h/p"); }), "");
	EXPECT_EQ(DownloadedBytes() - before, 8U);
	test::WriteFile(directory_ / "file", "left by another run");
	EXPECT_NE(MessageOf([&] { IOUtils().Download(directory_ / "file", "-p"); }), "");
	EXPECT_EQ(DownloadedBytes() - before, 8U);
}

} // namespace
} // namespace tarn::dataupdate
