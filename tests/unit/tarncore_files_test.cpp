#include "platform/tarncore/hostinfo.h"
#include "temporary_directory.h"

#include <tarncore/tarncore.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace {

using tarn::test::TemporaryDirectory;
using tarn::test::WriteFile;
using testing::EndsWith;
using testing::StartsWith;

constexpr auto kSame = static_cast<uid_t>(-1);

int MakeAsCallersDo(const std::string& path) {
	return TARNFSMkdirP(path.c_str(), 0, 0, kSame, kSame, -1);
}

mode_t ModeOf(const std::string& path) {
	struct stat info = {};
	return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

/** Sets the umask for as long as it lives. */
class Umask {
public:
	explicit Umask(mode_t mask) : old_(umask(mask)) {}
	~Umask() { umask(old_); }
	Umask(const Umask&) = delete;
	Umask& operator=(const Umask&) = delete;
	Umask(Umask&&) = delete;
	Umask& operator=(Umask&&) = delete;

private:
	mode_t old_;
};

TEST(FileExist, FollowsLinks) {
	const TemporaryDirectory directory;
	WriteFile(directory / "file", "");
	ASSERT_EQ(symlink((directory / "file").c_str(), (directory / "link").c_str()), 0);
	ASSERT_EQ(symlink((directory / "absent").c_str(), (directory / "dangling").c_str()), 0);
	EXPECT_EQ(TLIBCFileExist((directory / "file").c_str()), 1);
	EXPECT_EQ(TLIBCFileExist(directory.Path().c_str()), 1);
	EXPECT_EQ(TLIBCFileExist((directory / "link").c_str()), 1);
	EXPECT_EQ(TLIBCFileExist((directory / "dangling").c_str()), 0);
	EXPECT_EQ(TLIBCFileExist((directory / "absent").c_str()), 0);
	EXPECT_EQ(TLIBCFileExist(nullptr), 0);
}

TEST(MkdirP, MakesAllMissingParents) {
	const TemporaryDirectory directory;
	const Umask mask(022);
	EXPECT_NE(MakeAsCallersDo(directory / "a//b/@tmp/c/"), 0);
	EXPECT_EQ(ModeOf(directory / "a/b/@tmp/c"), 0755U);
	EXPECT_EQ(ModeOf(directory / "a"), 0755U);
}

TEST(MkdirP, ObeysModeAndUmask) {
	const TemporaryDirectory directory;
	const Umask mask(027);
	EXPECT_NE(TARNFSMkdirP((directory / "given").c_str(), 0775, 0, kSame, kSame, -1), 0);
	EXPECT_EQ(ModeOf(directory / "given"), 0750U);
}

TEST(MkdirP, ExistingDirectoryOrLinkToOneIsSuccessAndStaysAsItIs) {
	const TemporaryDirectory directory;
	ASSERT_EQ(mkdir((directory / "there").c_str(), 0700), 0);
	ASSERT_EQ(symlink((directory / "there").c_str(), (directory / "link").c_str()), 0);
	EXPECT_NE(MakeAsCallersDo(directory / "there"), 0);
	EXPECT_NE(MakeAsCallersDo(directory / "link"), 0);
	EXPECT_NE(MakeAsCallersDo(directory / "link/below"), 0);
	EXPECT_EQ(ModeOf(directory / "there"), 0700U);
	EXPECT_NE(ModeOf(directory / "there/below"), 0U);
	EXPECT_NE(MakeAsCallersDo("/"), 0);
	EXPECT_NE(MakeAsCallersDo("/proc/self"), 0);
}

TEST(MkdirP, FailureIsZeroWithItsReason) {
	const TemporaryDirectory directory;
	WriteFile(directory / "file", "");
	ASSERT_EQ(symlink((directory / "absent").c_str(), (directory / "dangling").c_str()), 0);
	EXPECT_EQ(MakeAsCallersDo(directory / "file"), 0);
	EXPECT_EQ(TLIBCErrGet(), ENOTDIR);
	TLIBCErrSet(0);
	EXPECT_EQ(MakeAsCallersDo(directory / "file/below"), 0);
	EXPECT_EQ(TLIBCErrGet(), ENOTDIR);
	EXPECT_EQ(MakeAsCallersDo(directory / "dangling"), 0);
	EXPECT_EQ(TLIBCErrGet(), ENOENT);
	EXPECT_EQ(MakeAsCallersDo("/proc/none/below"), 0);
	EXPECT_EQ(TLIBCErrGet(), ENOENT);
	TLIBCErrSet(0);
	EXPECT_EQ(MakeAsCallersDo(""), 0);
	EXPECT_EQ(TLIBCErrGet(), ENOENT);
	EXPECT_EQ(TARNFSMkdirP(nullptr, 0, 0, kSame, kSame, -1), 0);
	EXPECT_EQ(TLIBCErrGet(), EINVAL);
}

TEST(MkdirP, RelativePathsAreMadeBelowTheWorkingDirectory) {
	const TemporaryDirectory directory;
	const std::filesystem::path old = std::filesystem::current_path();
	std::filesystem::current_path(directory.Path());
	EXPECT_NE(MakeAsCallersDo("x/y"), 0);
	std::filesystem::current_path(old);
	EXPECT_NE(ModeOf(directory / "x/y"), 0U);
}

class OsName : public testing::Test {
protected:
	std::string Of(const std::string& content) const {
		WriteFile(directory_ / "os-release", content);
		return tarn::core::OsName({directory_ / "os-release"});
	}

	TemporaryDirectory directory_;
};

TEST_F(OsName, JoinsNameAndVersion) {
	EXPECT_EQ(
	    Of("PRETTY_NAME=\"x\"\nNAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nID=debian\n"), "Debian GNU/Linux 12");
}

TEST_F(OsName, TakesQuotesOff) {
	EXPECT_EQ(Of("NAME=Plain\n"), "Plain");
	EXPECT_EQ(Of("NAME='Single \\ quoted'\n"), "Single \\ quoted");
	EXPECT_EQ(Of("NAME=\"a \\\"b\\\" c\"\n"), "a \"b\" c");
}

TEST_F(OsName, FallsBackToTheNextFileAndThenToTheKernel) {
	utsname kernel = {};
	uname(&kernel);
	EXPECT_EQ(Of("ID=nameless\n"), kernel.sysname);
	WriteFile(directory_ / "second", "NAME=Second\n");
	EXPECT_EQ(tarn::core::OsName({directory_ / "absent", directory_ / "second"}), "Second");
}

TEST_F(OsName, OverlongValueIsCut) {
	EXPECT_EQ(Of("NAME=" + std::string(100000, 'x')).size(), 128U);
}

TEST(UserAgent, HoldsVersionSystemMachineAndCategory) {
	const TemporaryDirectory directory;
	WriteFile(directory / "os-release", "NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\n");
	utsname kernel = {};
	uname(&kernel);
	EXPECT_EQ(tarn::core::UserAgent("database", {directory / "os-release"}),
	    std::string("tarn/1.0 (Debian GNU/Linux 12; ") + kernel.machine + ") database");
}

TEST(UserAgent, CannotInjectHeaderLinesOrEndItsComment) {
	const TemporaryDirectory directory;
	WriteFile(directory / "os-release", "NAME=\"Evil) (\r\x01\xc3\xa9;\"\n");
	const std::string text = tarn::core::UserAgent("data\r\nbase", {directory / "os-release"});
	EXPECT_THAT(text, StartsWith("tarn/1.0 (Evil_ ______; "));
	EXPECT_THAT(text, EndsWith(") data__base"));
}

TEST(UserAgent, FillsTheBufferOrFails) {
	std::array<char, 1024> buffer = {};
	const int length = TLIBHostinfoUserAgentGet("database", buffer.data(), buffer.size());
	const std::string text = buffer.data();
	ASSERT_EQ(length, static_cast<int>(text.size()));
	EXPECT_EQ(text, tarn::core::UserAgent("database", tarn::core::OsReleasePaths()));
	EXPECT_EQ(TLIBHostinfoUserAgentGet("database", buffer.data(), text.size() + 1), length);
	EXPECT_EQ(TLIBHostinfoUserAgentGet("database", buffer.data(), text.size()), -1);
	EXPECT_EQ(TLIBCErrGet(), ERANGE);
	EXPECT_EQ(TLIBHostinfoUserAgentGet(nullptr, buffer.data(), buffer.size()), -1);
	EXPECT_EQ(TLIBCErrGet(), EINVAL);
	EXPECT_EQ(TLIBHostinfoUserAgentGet("database", nullptr, 10), -1);
}

} // namespace
