#include "dataupdate/internal/activity.h"
#include "dataupdate/internal/digest_stream.h"
#include "dataupdate/utils.h"
#include "fake_system.h"
#include "library_test.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>

namespace tarn::dataupdate {
namespace {

namespace fs = std::filesystem;

constexpr char kOfNothing[] =
    "38b060a751ac96384cd9327eb1b1e36a21fdb71114be07434c0cc7bf63f6e1da274edebfe76f65fbd51ad2f14898b95b";
constexpr char kOfAbc[] =
    "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7";
constexpr char kOfAMillionA[] =
    "9d0e1809716474cb086e834e310a4a1ced149e9c00f248527972cec5704c2a5b07b8b3dc38ecc4ebae97ddd87f3d8985";

std::string DigestOf(const std::string& text) {
	std::istringstream in(text);
	return GetSha384(in);
}

TEST(GetSha384Test, IsTheStandardDigestInLowerCase) {
	EXPECT_EQ(DigestOf(""), kOfNothing);
	EXPECT_EQ(DigestOf("abc"), kOfAbc);
	EXPECT_EQ(DigestOf(std::string(1000000, 'a')), kOfAMillionA);
}

TEST(GetSha384Test, BeginsAtTheStreamsPosition) {
	std::istringstream in("xyzabc");
	in.seekg(3);
	EXPECT_EQ(GetSha384(in), kOfAbc);
}

TEST(GetSha384Test, OfAFailedStreamIsThatOfNothing) {
	std::istringstream in("abc");
	in.setstate(std::ios::failbit);
	EXPECT_EQ(GetSha384(in), kOfNothing);
	std::fstream missing("/nonexistent/file", std::ios::in | std::ios::out);
	EXPECT_EQ(GetSha384(missing), kOfNothing);
}

TEST(GetSha384Test, EndsWhereNothingIsAvailable) {
	class Silent : public std::streambuf {};
	Silent silent;
	std::istream in(&silent);
	EXPECT_EQ(GetSha384(in), kOfNothing);
}

TEST(GetSha384Test, ReportsAStreamThatBreaksWhileItIsRead) {
	class Broken : public std::streambuf {
	protected:
		std::streamsize showmanyc() override { throw std::runtime_error("broken"); }
	};
	Broken broken;
	std::istream in(&broken);
	EXPECT_EQ(test::MessageOf([&] { GetSha384(in); }), "Fail during reading for SHA digest");
}

class FileSha384Test : public testing::Test {
protected:
	test::TemporaryDirectory directory_;
	test::FakeSystem system_;
};

TEST_F(FileSha384Test, IsRightAtTheEdgesOfABlock) {
	for (const std::size_t size : {0U, 1U, 262143U, 262144U, 262145U, 1000000U}) {
		const std::string content(size, 'a');
		WriteFile(directory_ / "f", content);
		EXPECT_EQ(FileSha384(directory_ / "f"), DigestOf(content)) << size;
	}
}

TEST_F(FileSha384Test, OfAMissingFileIsThatOfNothing) {
	EXPECT_EQ(FileSha384(directory_ / "none"), kOfNothing);
}

TEST_F(FileSha384Test, OfADirectoryIsThatOfNothing) {
	EXPECT_EQ(FileSha384(directory_ / ""), kOfNothing);
}

TEST_F(FileSha384Test, OfAFifoIsThatOfNothingWithoutWaiting) {
	ASSERT_EQ(mkfifo((directory_ / "fifo").c_str(), 0600), 0);
	EXPECT_EQ(FileSha384(directory_ / "fifo"), kOfNothing);
}

TEST_F(FileSha384Test, OfADeviceIsThatOfNothing) {
	EXPECT_EQ(FileSha384("/dev/zero"), kOfNothing);
}

TEST_F(FileSha384Test, ReportsAReadError) {
	WriteFile(directory_ / "f", "abc");
	system_.Fail("read", EIO);
	EXPECT_EQ(test::MessageOf([&] { FileSha384(directory_ / "f"); }), "Fail during reading for SHA digest");
	system_.Fail("read", EIO, 1, 1);
	WriteFile(directory_ / "f", std::string(300000, 'a'));
	EXPECT_EQ(test::MessageOf([&] { FileSha384(directory_ / "f"); }), "Fail during reading for SHA digest");
}

TEST_F(FileSha384Test, GoesOnAfterAnInterruption) {
	WriteFile(directory_ / "f", "abc");
	system_.Fail("read", EINTR);
	EXPECT_EQ(FileSha384(directory_ / "f"), kOfAbc);
}

TEST_F(FileSha384Test, OpensForReadingAndWriting) {
	WriteFile(directory_ / "f", "abc");
	DigestStream stream(directory_ / "f");
	bool found = false;
	for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
		std::error_code ignored;
		if (fs::read_symlink(entry.path(), ignored) == directory_ / "f") {
			std::ifstream info("/proc/self/fdinfo/" + entry.path().filename().string());
			std::string name;
			unsigned int flags = 0;
			for (; info >> name && name != "flags:";) {
			}
			info >> std::oct >> flags;
			EXPECT_EQ(flags & 3U, 2U);        // O_RDWR
			EXPECT_NE(flags & 02000000U, 0U); // O_CLOEXEC
			found = true;
		}
	}
	EXPECT_TRUE(found);
	EXPECT_EQ(GetSha384(stream), kOfAbc);
}

TEST_F(FileSha384Test, CountsItsProgress) {
	WriteFile(directory_ / "f", std::string(1000, 'a'));
	const ActivityScope outer(Phase::kHash, "outer");
	const std::uint64_t serial = CurrentActivity().serial;
	DigestStream stream(directory_ / "f");
	GetSha384(stream);
	EXPECT_EQ(CurrentActivity().bytes, 1000U);
	FileSha384(directory_ / "f");
	EXPECT_EQ(CurrentActivity().path, "outer");
	EXPECT_EQ(CurrentActivity().serial, serial + 2);
}

} // namespace
} // namespace tarn::dataupdate
